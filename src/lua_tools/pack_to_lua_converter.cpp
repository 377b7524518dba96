#include "lua_tools/pack_to_lua_converter.h"

#include <limits>
#include <new>
#include <stdexcept>

namespace pex {

PackToLuaConverter::PackToLuaConverter(lua_State* L)
    : log(log4cpp::Category::getInstance("pack_to_lua")), _L(L)
{
}

bool PackToLuaConverter::visit_nil()
{
    reserve_slot();
    lua_pushnil(_L);  // nil
    log.debug("nil");
    return true;
}

bool PackToLuaConverter::visit_boolean(bool v)
{
    reserve_slot();
    lua_pushboolean(_L, v);  // boolean
    log.debugStream() << "bool: " << (v ? "<true>" : "<false>");
    return true;
}

// Scripts get 32-bit integers on every platform: 4294967296 arrives as 0. The trace keeps the full
// value. The casts are explicit because Lua's own integer types differ in width between platforms.

bool PackToLuaConverter::visit_positive_integer(std::uint64_t v)
{
    reserve_slot();
    lua_pushunsigned(_L, static_cast<std::uint32_t>(v));  // number
    log.debugStream() << "unsigned: " << v;
    return true;
}

bool PackToLuaConverter::visit_negative_integer(std::int64_t v)
{
    reserve_slot();
    lua_pushinteger(_L, static_cast<std::int32_t>(v));  // number
    log.debugStream() << "signed: " << v;
    return true;
}

bool PackToLuaConverter::visit_float(float v)
{
    return visit_float64(v);
}

bool PackToLuaConverter::visit_float32(float v)
{
    return visit_float(v);
}

bool PackToLuaConverter::visit_float64(double v)
{
    static_assert(std::numeric_limits<float>::is_iec559,
                  "narrowing a double beyond float's range gives infinity");
    // Scripts get single precision whatever was sent: 0.1 arrives as 0.100000001490116.
    const double narrowed = static_cast<float>(v);
    reserve_slot();
    lua_pushnumber(_L, narrowed);  // number
    log.debugStream() << "float: " << narrowed;
    return true;
}

bool PackToLuaConverter::visit_str(const char* p, std::uint32_t n)
{
    reserve_slot();
    lua_pushlstring(_L, n == 0 ? "" : p, n);  // string; the parser gives an empty one as null
    log.debugStream() << "string. sz: " << n;
    return true;
}

bool PackToLuaConverter::visit_bin(const char* p, std::uint32_t n)
{
    return visit_str(p, n);
}

bool PackToLuaConverter::visit_ext(const char* p, std::uint32_t n)
{
    return visit_str(p, n);
}

bool PackToLuaConverter::start_array(std::uint32_t n)
{
    reserve_slot();
    lua_createtable(_L, 0, 0);  // array
    log.debugStream() << "array start (" << n << ")";
    return true;
}

bool PackToLuaConverter::start_array_item()
{
    return true;
}

bool PackToLuaConverter::end_array_item()
{
    // Appends at the border, so nil elements vanish and later ones close up: [1, nil, 3] is {1, 3}.
    reserve_slot();   // array item
    lua_len(_L, -2);  // array item length
    const lua_Unsigned index = lua_tounsigned(_L, -1) + 1;
    lua_pop(_L, 1);  // array item
    log.debugStream() << "array item " << index;
    lua_rawseti(_L, -2, static_cast<int>(index));  // array
    return true;
}

bool PackToLuaConverter::end_array()
{
    log.debug("array end");
    return true;
}

bool PackToLuaConverter::start_map(std::uint32_t n)
{
    reserve_slot();
    lua_createtable(_L, 0, 0);  // map
    log.debugStream() << "map start (" << n << " key value pairs)";
    return true;
}

bool PackToLuaConverter::start_map_key()
{
    return true;
}

bool PackToLuaConverter::end_map_key()
{
    return true;
}

bool PackToLuaConverter::start_map_value()
{
    return true;
}

bool PackToLuaConverter::end_map_value()
{
    // A nil value leaves no entry; a nil or NaN key ends the process through Lua's panic.
    lua_settable(_L, -3);  // map
    log.debug("key value pair ready");
    return true;
}

bool PackToLuaConverter::end_map()
{
    log.debug("map end");
    return true;
}

void PackToLuaConverter::parse_error(std::size_t parsed_offset, std::size_t error_offset)
{
    log.errorStream() << "parser_error. parsed_offset: " << parsed_offset
                      << " error_offset: " << error_offset;
}

void PackToLuaConverter::insufficient_bytes(std::size_t parsed_offset, std::size_t error_offset)
{
    log.errorStream() << "insufficient_bytes. parsed_offset: " << parsed_offset
                      << " error_offset: " << error_offset;
}

void PackToLuaConverter::reserve_slot()
{
    if (lua_checkstack(_L, 1) != 0) {
        return;
    }
    // Lua keeps a few slots below its limit to itself, fewer than LUA_MINSTACK.
    if (lua_gettop(_L) > LUAI_MAXSTACK - LUA_MINSTACK) {
        throw std::runtime_error("args are nested too deeply");
    }
    throw std::bad_alloc();
}

}  // namespace pex
