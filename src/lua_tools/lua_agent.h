#pragma once

#include <log4cpp/Category.hh>
#include <msgpack.hpp>
#include <string>
#include <vector>

#include "lua_tools/job_result.h"

namespace pex {

/// Finds a job's script in the search directories and runs it in a LuaVM of its own.
/// Built once, with the command handler that owns it; its fields never change afterwards.
class LuaAgent {
public:
    /// Without any `search_dirs` the one entry is "job_scripts" in the working directory of this
    /// moment; std::runtime_error if that has no name. `staging_dir` must not be null. Logs each
    /// search directory.
    LuaAgent(std::vector<std::string> search_dirs, const char* staging_dir);
    virtual ~LuaAgent();

    /// Stores the path of the first directory entry named `script_name` (extension included) in
    /// `script_path` and returns true; otherwise returns false and leaves `script_path` alone.
    bool findScript(std::string& script_path, const std::string& script_name);

    /// Runs one job to its end. Failures come back in the result; an exception from the
    /// conversion of the arguments passes through.
    JobResult runJob(const std::string& script_name, const msgpack::object& args);

private:
    log4cpp::Category& log;
    std::vector<std::string> _search_dirs;
    std::string _staging_dir;
};

}  // namespace pex
