#pragma once

namespace fuzz {

/// Thrown where Lua's panic would end the daemon. Not a standard exception, which the service
/// would catch. Comes from every state that the process opens, as luaL_newstate is wrapped.
struct LuaPanic {};

/// Debian's Lua has no unwind tables on 32-bit ARM: there the throw ends the process, so what has
/// to panic cannot be tried.
#ifdef __arm__
constexpr bool can_survive_panic = false;
#else
constexpr bool can_survive_panic = true;
#endif

}  // namespace fuzz
