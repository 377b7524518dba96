#include "support/failing_calls.h"

#include <dirent.h>

#include <cerrno>
#include <lua.hpp>

namespace {

int readdir_error = 0;
int readdir_entries = 0;
bool newstate_fails = false;

}  // namespace

extern "C" {

// The project is built with 64-bit file offsets, where readdir() is readdir64().
dirent* __real_readdir64(DIR* directory);
dirent* __wrap_readdir64(DIR* directory);
lua_State* __real_luaL_newstate();
lua_State* __wrap_luaL_newstate();

dirent* __wrap_readdir64(DIR* directory)
{
    if (readdir_error != 0 && readdir_entries-- <= 0) {
        errno = readdir_error;
        return nullptr;
    }
    return __real_readdir64(directory);
}

lua_State* __wrap_luaL_newstate()
{
    return newstate_fails ? nullptr : __real_luaL_newstate();
}

}  // extern "C"

namespace failing_calls {

Readdir::Readdir(int error, int entries)
{
    readdir_error = error;
    readdir_entries = entries;
}

Readdir::~Readdir()
{
    readdir_error = 0;
}

NewState::NewState()
{
    newstate_fails = true;
}

NewState::~NewState()
{
    newstate_fails = false;
}

}  // namespace failing_calls
