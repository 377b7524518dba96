#include "lua_tools/lua_agent.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "lua_tools/lua_vm.h"
#include "lua_tools/script_directory.h"

namespace pex {

namespace {

std::string working_directory()
{
    const std::unique_ptr<char, decltype(&std::free)> cwd(get_current_dir_name(), &std::free);
    if (!cwd) {
        char buffer[80];
        throw std::runtime_error(std::string("getcwd: ") +
                                 strerror_r(errno, buffer, sizeof buffer));
    }
    return cwd.get();
}

}  // namespace

LuaAgent::LuaAgent(std::vector<std::string> search_dirs, const char* staging_dir)
    : log(log4cpp::Category::getInstance("lua_agent")),
      _search_dirs(std::move(search_dirs)),
      _staging_dir(staging_dir)
{
    if (_search_dirs.empty()) {
        // No trailing '/': the module template for this entry reads ".../job_scripts?.lua".
        _search_dirs.push_back(working_directory() + "/job_scripts");
    }
    for (const std::string& dir : _search_dirs) {
        log.infoStream() << "script directory: " << dir;
    }
}

LuaAgent::~LuaAgent() = default;

bool LuaAgent::findScript(std::string& script_path, const std::string& script_name)
{
    for (const std::string& dir : _search_dirs) {
        ScriptDirectory directory(log);
        if (directory.open(dir.c_str()) &&
            directory.lookup_absolute_script(script_path, script_name)) {
            return true;
        }
    }
    return false;
}

JobResult LuaAgent::runJob(const std::string& script_name, const msgpack::object& args)
{
    std::string script;
    if (!findScript(script, script_name)) {
        return JobResult(false, "Cannot run job. Script not found \"" + script_name + "\"");
    }

    LuaVM vm(_search_dirs, _staging_dir.c_str());
    JobResult result = vm.executeScript(script.c_str(), args);
    if (!result.getStatus()) {
        log.error("%s job failed", script.c_str());
    }
    return result;
}

}  // namespace pex
