#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// One MessagePack object as its bytes say it, before any rule of the service. The reader is the
/// fuzzers' own and shares nothing with what it is compared with.
struct Wire {
    enum class Kind { nil, boolean, integer, float32, float64, str, bin, ext, array, map };

    Kind kind = Kind::nil;
    bool truth = false;
    std::uint64_t integer = 0;  ///< in two's complement
    bool negative = false;      ///< of the integer
    double number = 0;          ///< a float's value
    std::string bytes;          ///< of str, bin and ext; an ext's begin with its type
    std::vector<Wire> items;    ///< an array's elements; a map's key, value, key, value, ...

    bool is_text() const { return kind == Kind::str || kind == Kind::bin; }
    bool is_float() const { return kind == Kind::float32 || kind == Kind::float64; }
};

enum class Ending { whole, malformed, cut_off };

struct Reading {
    Ending ending = Ending::whole;
    Wire object;           ///< if whole
    std::size_t size = 0;  ///< bytes of the object, if whole
    /// Its arrays and maps announce more elements than there are bytes, and so many that memory
    /// may not hold them: whether that or the missing bytes are noticed first is open.
    bool announces_much = false;
};

/// Reads the first object of `bytes`.
Reading read_wire(std::string_view bytes);

/// How many levels of arrays and maps there are.
std::size_t depth(const Wire& object);

}  // namespace fuzz
