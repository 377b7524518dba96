#include "lua_tools/script_directory.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace pex {

ScriptDirectory::ScriptDirectory(log4cpp::Category& owner_log)
    : log(owner_log), _directory(nullptr), _dir_path(nullptr)
{
}

ScriptDirectory::~ScriptDirectory()
{
    close();
}

bool ScriptDirectory::open(const char* path)
{
    _directory = opendir(path);
    if (_directory == nullptr) {
        char buffer[80];
        log.error("opendir(%s): %s", path, strerror_r(errno, buffer, sizeof buffer));
        return false;
    }
    _dir_path = path;
    return true;
}

bool ScriptDirectory::lookup_absolute_script(std::string& script_path,
                                             const std::string& script_name)
{
    if (_directory == nullptr) {
        throw std::runtime_error(
            "Didn't open directory for searching (pex::util::Dir::lookup_absolute_script)");
    }

    errno = 0;  // readdir returns null at the end and on an error; only errno tells which
    while (const dirent* entry = readdir(_directory)) {
        // strcmp ends at a zero byte, so "ping.lua\0x" finds and runs ping.lua.
        if (std::strcmp(script_name.c_str(), entry->d_name) == 0) {
            std::string path = _dir_path;
            if (path.empty() || path.back() != '/') {
                path += '/';
            }
            script_path = path + script_name;
            close();
            return true;
        }
        errno = 0;
    }
    if (errno != 0) {
        char buffer[80];
        log.error("readdir(%s): %s", _dir_path, strerror_r(errno, buffer, sizeof buffer));
    }
    close();
    return false;
}

void ScriptDirectory::close()
{
    if (_directory != nullptr) {
        closedir(_directory);
        _directory = nullptr;
    }
}

}  // namespace pex
