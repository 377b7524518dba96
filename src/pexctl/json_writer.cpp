#include "pexctl/json_writer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "pexctl/text.h"

namespace pexctl {

namespace {

class JsonWriter {
public:
    /// Stops soon after `limit` characters. `indented` is the form with one value a line.
    JsonWriter(bool indented, std::size_t limit) : _indented(indented), _limit(limit) {}

    std::string text;

    void write(const msgpack::object& object)
    {
        switch (object.type) {
            case msgpack::type::ARRAY:
                return write_array(object.via.array);
            case msgpack::type::MAP:
                return write_map(object.via.map);
            case msgpack::type::STR:
                return write_str({object.via.str.ptr, object.via.str.size});
            case msgpack::type::BIN:
                text += json_bytes("$bin", {object.via.bin.ptr, object.via.bin.size});
                return;
            case msgpack::type::EXT:
                text += "{\"$ext\": [" + std::to_string(object.via.ext.type()) + ", \"" +
                        hex({object.via.ext.data(), object.via.ext.size}) + "\"]}";
                return;
            default:
                text += scalar(object);
        }
    }

private:
    static std::string scalar(const msgpack::object& object)
    {
        switch (object.type) {
            case msgpack::type::BOOLEAN:
                return object.via.boolean ? "true" : "false";
            case msgpack::type::POSITIVE_INTEGER:
                return std::to_string(object.via.u64);
            case msgpack::type::NEGATIVE_INTEGER:
                return std::to_string(object.via.i64);
            case msgpack::type::FLOAT32:
                return number(static_cast<float>(object.via.f64));
            case msgpack::type::FLOAT64:
                return number(object.via.f64);
            default:
                return "null";
        }
    }

    /// The shortest text that gives the same number again, and is no integer's.
    template <typename Float>
    static std::string number(Float value)
    {
        if (!std::isfinite(value)) {
            const char* name = std::isnan(value) ? "nan" : value < 0 ? "-inf" : "inf";
            return std::string("{\"$float\": \"") + name + "\"}";
        }
        char text[32];
        const std::string shortest(text, std::to_chars(text, text + sizeof text, value).ptr);
        return shortest + (shortest.find_first_of(".e") == std::string::npos ? ".0" : "");
    }

    void write_str(std::string_view str)
    {
        text += is_utf8(str) ? json_string(str) : json_bytes("$str", str);
    }

    void write_array(const msgpack::object_array& array)
    {
        if (_indented && is_row(array)) {
            JsonWriter row(false, longest_row);
            row.write_array(array);
            if (row.text.size() + 2 * _depth < longest_row) {
                text += row.text;
                return;
            }
        }
        write_items('[', ']', array.size, [&](std::uint32_t i) { write(array.ptr[i]); });
    }

    /// Whether an array may stand on one line, if it is short enough.
    static bool is_row(const msgpack::object_array& array)
    {
        return array.size < longest_row &&
               std::none_of(array.ptr, array.ptr + array.size, [](const msgpack::object& item) {
                   return item.type == msgpack::type::ARRAY || item.type == msgpack::type::MAP;
               });
    }

    void write_map(const msgpack::object_map& map)
    {
        if (is_object(map)) {
            write_items('{', '}', map.size, [&](std::uint32_t i) {
                write(map.ptr[i].key);
                text += ": ";
                write(map.ptr[i].val);
            });
            return;
        }
        text += "{\"$map\": ";
        write_items('[', ']', map.size, [&](std::uint32_t i) {
            text += "[";
            write(map.ptr[i].key);
            text += ", ";
            write(map.ptr[i].val);
            text += "]";
        });
        text += "}";
    }

    /// Whether a map can be a JSON object, and cannot be mistaken for one of the forms with '$'.
    static bool is_object(const msgpack::object_map& map)
    {
        std::unordered_set<std::string_view> keys;
        for (std::uint32_t i = 0; i < map.size; ++i) {
            const msgpack::object& key = map.ptr[i].key;
            if (key.type != msgpack::type::STR) {
                return false;
            }
            const std::string_view name(key.via.str.ptr, key.via.str.size);
            if (name.substr(0, 1) == "$" || !is_utf8(name) || !keys.insert(name).second) {
                return false;
            }
        }
        return true;
    }

    template <typename WriteItem>
    void write_items(char begin, char end, std::uint32_t size, WriteItem write_item)
    {
        text += begin;
        ++_depth;
        for (std::uint32_t i = 0; i < size && text.size() < _limit; ++i) {
            text += i == 0 ? "" : _indented ? "," : ", ";
            new_line();
            write_item(i);
        }
        --_depth;
        if (size > 0) {
            new_line();
        }
        text += end;
    }

    void new_line()
    {
        if (_indented) {
            text += "\n" + std::string(2 * _depth, ' ');
        }
    }

    static constexpr std::size_t longest_row = 72;

    bool _indented;
    std::size_t _limit;
    std::size_t _depth = 0;
};

}  // namespace

std::string indented_json(const msgpack::object& object)
{
    JsonWriter writer(true, SIZE_MAX);
    writer.write(object);
    return writer.text;
}

std::string json_line(const msgpack::object& object, std::size_t limit)
{
    JsonWriter writer(false, limit);
    writer.write(object);
    return writer.text;
}

std::string json_string(std::string_view text)
{
    std::string result;
    const std::string quoted = nlohmann::json(text).dump();
    for (std::string_view rest = quoted; !rest.empty();) {
        const std::string_view character = rest.substr(0, character_length(rest));
        if (is_control(character)) {  // JSON lets DEL and the C1 controls stand
            const auto code = static_cast<unsigned char>(character.back());
            result += "\\u00" + hex({reinterpret_cast<const char*>(&code), 1});
        } else {
            result += character;
        }
        rest.remove_prefix(character.size());
    }
    return result;
}

std::string json_bytes(const char* kind, std::string_view bytes)
{
    return std::string("{\"") + kind + "\": \"" + hex(bytes) + "\"}";
}

}  // namespace pexctl
