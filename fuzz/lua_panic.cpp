#include "lua_panic.h"

#include <lua.hpp>

extern "C" {

lua_State* __real_luaL_newstate();
lua_State* __wrap_luaL_newstate();

lua_State* __wrap_luaL_newstate()
{
    lua_State* const L = __real_luaL_newstate();
    if (L != nullptr) {
        lua_atpanic(L, [](lua_State*) -> int { throw fuzz::LuaPanic(); });
    }
    return L;
}

}  // extern "C"
