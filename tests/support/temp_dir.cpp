#include "support/temp_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

void require(bool success, const std::string& what)
{
    if (!success) {
        throw std::runtime_error("test set-up failed: " + what);
    }
}

}  // namespace

TempDir::TempDir() : _path(std::filesystem::temp_directory_path() / "pex-test-XXXXXX")
{
    require(mkdtemp(_path.data()) != nullptr, "mkdtemp " + _path);
    _path = std::filesystem::canonical(_path);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const
{
    const std::string file = _path + "/" + name;
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    stream.close();
    require(stream.good(), "write " + file);
    return file;
}

std::string TempDir::make_dir(const std::string& name) const
{
    const std::string dir = _path + "/" + name;
    require(std::filesystem::create_directory(dir), "mkdir " + dir);
    return dir;
}

std::string read_file(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

WorkingDirectory::WorkingDirectory(const std::string& path)
    : _before(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    require(_before != -1, "open .");
    require(chdir(path.c_str()) == 0, "chdir " + path);
}

WorkingDirectory::~WorkingDirectory()
{
    if (fchdir(_before) != 0) {
        std::abort();  // the tests behind this one would run elsewhere
    }
    close(_before);
}

EnvironmentVariable::EnvironmentVariable(const std::string& name, const std::string& value)
    : _name(name)
{
    require(setenv(_name.c_str(), value.c_str(), 1) == 0, "setenv " + _name);
}

EnvironmentVariable::~EnvironmentVariable()
{
    unsetenv(_name.c_str());
}
