#pragma once

#include <log4cpp/Category.hh>
#include <lua.hpp>
#include <msgpack.hpp>
#include <string>
#include <vector>

#include "lua_tools/job_result.h"
#include "lua_tools/lua_pool.h"

namespace pex {

/// Runs one job's script in one Lua state, which never serves a second job.
///
/// All that Lua does is protected, except for the conversion of the arguments in loadArgs(). The
/// state has no panic handler of the service's own: a Lua error there (a nil or NaN map key, or no
/// memory) aborts the process.
class LuaVM {
public:
    /// Borrows `staging_dir`, which must outlive this object. Makes no Lua state yet.
    LuaVM(const std::vector<std::string>& search_dirs, const char* staging_dir);
    virtual ~LuaVM();
    LuaVM(const LuaVM&) = delete;
    LuaVM& operator=(const LuaVM&) = delete;

    /// Makes the state, with all standard libraries and its garbage collector stopped. On failure
    /// logs it, leaves no state behind and returns false.
    bool open();
    /// Harmless when already closed.
    void close();

    /// Runs the script file, with `args` as its global `args`; opens the state if need be.
    /// Failures come back as status false with a reason for the server; Lua's own message goes to
    /// the log. Throws what loadArgs() throws.
    JobResult executeScript(const char* abs_path, const msgpack::object& args);

    // The steps of executeScript(). They need an open state and leave the stack as they found it.

    /// Sets the global `pexenv` to {staging_dir = ...}. Throws std::bad_alloc without memory.
    void addPexEnv();
    /// Appends the search directories to package.path and package.cpath, after Lua's defaults.
    /// Throws std::bad_alloc without memory; the state is then fit only for close().
    void addSearchDirs();
    /// Logs the error value on top of the stack and leaves it there.
    void logLuaError();
    /// Sets the global `args`. Throws std::runtime_error for arguments that are nested too deeply
    /// for Lua's stack, std::bad_alloc without memory and msgpack::type_error for an object of no
    /// known type. The stack may then keep a part of them, and the state is fit only for close().
    void loadArgs(const msgpack::v2::object& args);
    /// Appends the last returned value to `answer`: a string's bytes, or a number as Lua writes it.
    /// Any other value adds nothing.
    void unloadAnswer(std::vector<unsigned char>& answer);

private:
    /// Opens the state if need be and sets it up. On failure logs it, closes the state and returns
    /// false.
    bool prepare();

    log4cpp::Category& log;
    lua_State* _L;  ///< owned; null unless open
    const char* _staging_dir;
    std::vector<std::string> _search_dirs;
    LuaPool _pool;  ///< the state's memory
};

}  // namespace pex
