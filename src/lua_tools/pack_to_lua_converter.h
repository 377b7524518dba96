#pragma once

#include <cstddef>
#include <cstdint>
#include <log4cpp/Category.hh>
#include <lua.hpp>

namespace pex {

/// Turns the events of msgpack::v2::parse() into one value on a Lua stack; docs/scripting.md has
/// the table of what becomes what. Each event is traced at debug, without string contents.
///
/// A complete value leaves exactly one Lua value; an open array or map keeps its table on the
/// stack until it ends. A key that is nil or NaN raises a Lua error, unprotected: the converter
/// does not screen keys.
///
/// Operations that push throw before they push if the Lua stack cannot grow: std::runtime_error at
/// Lua's limit (LUAI_MAXSTACK), std::bad_alloc without memory.
/// All that return a bool return true, so the parser is never asked to stop.
class PackToLuaConverter {
public:
    /// Borrows `L`.
    explicit PackToLuaConverter(lua_State* L);

    bool visit_nil();
    bool visit_boolean(bool v);
    bool visit_positive_integer(std::uint64_t v);
    bool visit_negative_integer(std::int64_t v);
    bool visit_float(float v);
    bool visit_float32(float v);
    bool visit_float64(double v);
    bool visit_str(const char* p, std::uint32_t n);
    bool visit_bin(const char* p, std::uint32_t n);
    /// `p` holds the ext type byte and then the payload; `n` counts both.
    bool visit_ext(const char* p, std::uint32_t n);

    bool start_array(std::uint32_t n);
    bool start_array_item();
    bool end_array_item();
    bool end_array();

    bool start_map(std::uint32_t n);
    bool start_map_key();
    bool end_map_key();
    bool start_map_value();
    bool end_map_value();
    bool end_map();

    void parse_error(std::size_t parsed_offset, std::size_t error_offset);
    void insufficient_bytes(std::size_t parsed_offset, std::size_t error_offset);

private:
    /// Makes room for one more value, or throws.
    void reserve_slot();

    log4cpp::Category& log;
    lua_State* _L;
};

}  // namespace pex
