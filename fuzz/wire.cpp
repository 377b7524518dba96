#include "wire.h"

#include <algorithm>
#include <cstring>

namespace fuzz {

namespace {

class Reader {
public:
    explicit Reader(std::string_view bytes) : _rest(bytes), _whole_size(bytes.size()) {}

    Reading read()
    {
        Reading reading;
        try {
            reading.object = object();
            reading.size = _whole_size - _rest.size();
        } catch (Ending ending) {
            reading.ending = ending;
        }
        reading.announces_much = _announced > 1U << 20U;
        return reading;
    }

private:
    using Kind = Wire::Kind;

    std::string_view take(std::uint64_t size)
    {
        if (size > _rest.size()) {
            throw Ending::cut_off;
        }
        const std::string_view taken = _rest.substr(0, static_cast<std::size_t>(size));
        _rest.remove_prefix(taken.size());
        return taken;
    }

    std::uint64_t number(unsigned size)
    {
        std::uint64_t value = 0;
        for (const char byte : take(size)) {
            value = value << 8U | static_cast<unsigned char>(byte);
        }
        return value;
    }

    static Wire integer(std::uint64_t value, bool negative)
    {
        Wire wire;
        wire.kind = Kind::integer;
        wire.integer = value;
        wire.negative = negative;
        return wire;
    }

    Wire signed_integer(unsigned size)
    {
        const std::uint64_t value = number(size);
        const unsigned bits = 8 * size;
        const bool negative = (value >> (bits - 1) & 1U) != 0;
        return integer(negative && bits < 64 ? value | ~std::uint64_t(0) << bits : value, negative);
    }

    Wire floating(unsigned size)
    {
        Wire wire;
        wire.kind = size == 4 ? Kind::float32 : Kind::float64;
        const std::uint64_t bits = number(size);
        if (size == 8) {
            std::memcpy(&wire.number, &bits, sizeof wire.number);
            return wire;
        }
        const auto half = static_cast<std::uint32_t>(bits);
        float value;
        std::memcpy(&value, &half, sizeof value);
        wire.number = value;
        return wire;
    }

    Wire text(Kind kind, std::uint64_t size)
    {
        Wire wire;
        wire.kind = kind;
        wire.bytes = take(size);
        return wire;
    }

    Wire container(Kind kind, std::uint64_t size)
    {
        Wire wire;
        wire.kind = kind;
        const std::uint64_t objects = kind == Kind::map ? 2 * size : size;
        _announced += objects > _rest.size() ? objects : 0;
        for (std::uint64_t i = 0; i < objects; ++i) {
            wire.items.push_back(object());
        }
        return wire;
    }

    Wire object()
    {
        const auto head = static_cast<unsigned>(number(1));
        if (head < 0x80) {
            return integer(head, false);
        }
        if (head >= 0xe0) {
            return integer(~std::uint64_t(0xff) | head, true);
        }
        return head < 0x90   ? container(Kind::map, head & 0x0fU)
               : head < 0xa0 ? container(Kind::array, head & 0x0fU)
               : head < 0xc0 ? text(Kind::str, head & 0x1fU)
                             : long_form(head);
    }

    /// The forms of one head byte each, in the order of these bytes.
    Wire long_form(unsigned head)
    {
        const auto size_class = [&](unsigned first) { return 1U << ((head - first) & 7U); };
        switch (head) {
            case 0xc0:
                return {};
            case 0xc1:
                throw Ending::malformed;
            case 0xc2:
            case 0xc3:
                return boolean(head == 0xc3);
            case 0xc4:
            case 0xc5:
            case 0xc6:
                return text(Kind::bin, number(size_class(0xc4)));
            case 0xc7:
            case 0xc8:
            case 0xc9:
                return text(Kind::ext, number(size_class(0xc7)) + 1);
            case 0xca:
            case 0xcb:
                return floating(head == 0xca ? 4 : 8);
            case 0xcc:
            case 0xcd:
            case 0xce:
            case 0xcf:
                return integer(number(size_class(0xcc)), false);
            case 0xd0:
            case 0xd1:
            case 0xd2:
            case 0xd3:
                return signed_integer(size_class(0xd0));
            case 0xd4:
            case 0xd5:
            case 0xd6:
            case 0xd7:
            case 0xd8:
                return text(Kind::ext, size_class(0xd4) + 1);
            case 0xd9:
            case 0xda:
            case 0xdb:
                return text(Kind::str, number(size_class(0xd9)));
            case 0xdc:
            case 0xdd:
                return container(Kind::array, number(head == 0xdc ? 2 : 4));
            default:
                return container(Kind::map, number(head == 0xde ? 2 : 4));
        }
    }

    static Wire boolean(bool truth)
    {
        Wire wire;
        wire.kind = Kind::boolean;
        wire.truth = truth;
        return wire;
    }

    std::string_view _rest;
    std::size_t _whole_size;
    std::uint64_t _announced = 0;
};

}  // namespace

Reading read_wire(std::string_view bytes)
{
    return Reader(bytes).read();
}

std::size_t depth(const Wire& object)
{
    std::size_t deepest = 0;
    for (const Wire& item : object.items) {
        deepest = std::max(deepest, depth(item));
    }
    const bool is_container = object.kind == Wire::Kind::array || object.kind == Wire::Kind::map;
    return deepest + (is_container ? 1 : 0);
}

}  // namespace fuzz
