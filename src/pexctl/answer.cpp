#include "pexctl/answer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <msgpack.hpp>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <unordered_set>

namespace pexctl {

namespace {

constexpr std::size_t deepest = 512;

/// The length of the UTF-8 character that `text` begins with (RFC 3629), 0 if it is none.
std::size_t character_length(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    const bool overlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
    const bool surrogate = first == 0xed && byte(1) >= 0xa0;
    const bool too_large = first == 0xf4 && byte(1) >= 0x90;
    return overlong || surrogate || too_large ? 0 : length;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string hex(std::string_view bytes)
{
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char c : bytes) {
        text += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
        text += "0123456789abcdef"[c & 15];
    }
    return text;
}

/// C0 and C1 controls and DEL: a terminal might obey them.
bool is_control(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20 || first == 0x7f ||
           (first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0);
}

std::string escaped(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) {
        text += "\\x" + hex({&c, 1});
    }
    return text;
}

/// Text that a terminal can show: controls but line feed and tab, and what is not UTF-8, escaped.
std::string printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::size_t valid = character_length(text);
        const std::string_view character = text.substr(0, valid == 0 ? 1 : valid);
        const bool plain = character == "\n" || character == "\t" || text.substr(0, 2) == "\r\n" ||
                           (valid != 0 && !is_control(character));
        result += plain ? std::string(character) : escaped(character);
        text.remove_prefix(character.size());
    }
    return result;
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

/// Writes MessagePack as JSON, without loss: docs/pexctl.md has the form.
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
                return write_bytes("$bin", {object.via.bin.ptr, object.via.bin.size});
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
        if (is_utf8(str)) {
            text += json_string(str);
        } else {
            write_bytes("$str", str);
        }
    }

    void write_bytes(const char* kind, std::string_view bytes)
    {
        text += std::string("{\"") + kind + "\": \"" + hex(bytes) + "\"}";
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

/// The whole answer, if it is one array or map.
std::optional<msgpack::object_handle> unpack_tree(const std::string& answer)
{
    const unsigned char first = answer.empty() ? 0 : static_cast<unsigned char>(answer[0]);
    const bool may_be_tree = (first >= 0x80 && first <= 0x9f) || (first >= 0xdc && first <= 0xdf);
    if (!may_be_tree) {
        return std::nullopt;
    }
    try {
        std::size_t end = 0;
        constexpr std::size_t any = 0xffffffff;
        msgpack::object_handle tree =
            msgpack::unpack(answer.data(), answer.size(), end, nullptr, nullptr,
                            msgpack::unpack_limit(any, any, any, any, any, deepest));
        return end == answer.size() ? std::optional(std::move(tree)) : std::nullopt;
    } catch (const std::exception&) {  // not MessagePack, too deep, or too large for the memory
        return std::nullopt;
    }
}

std::string to_json(const msgpack::object& object)
{
    JsonWriter writer(true, SIZE_MAX);
    writer.write(object);
    return writer.text + "\n";
}

std::string hex_dump(const std::string& bytes)
{
    std::string text;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        char number[24];
        std::snprintf(number, sizeof number, "%08zx ", offset);
        text += number;
        std::string ascii;
        for (std::size_t i = 0; i < 16; ++i) {
            text += i % 8 == 0 ? " " : "";
            if (offset + i < bytes.size()) {
                const char c = bytes[offset + i];
                text += hex({&c, 1}) + " ";
                ascii += c >= ' ' && c < 0x7f ? c : '.';
            } else {
                text += "   ";
            }
        }
        text += " |" + ascii + "|\n";
    }
    return text;
}

std::string as_text(const std::string& answer)
{
    const std::string text = printable(answer);
    return text.empty() || text.back() == '\n' ? text : text + "\n";
}

std::string as_json(const std::string& answer)
{
    if (const auto tree = unpack_tree(answer)) {
        return to_json(tree->get());
    }
    return (is_utf8(answer) ? json_string(answer) : "{\"$bin\": \"" + hex(answer) + "\"}") + "\n";
}

std::string for_people(const std::string& answer)
{
    if (const auto tree = unpack_tree(answer)) {
        return to_json(tree->get());
    }
    return is_utf8(answer) ? as_text(answer) : hex_dump(answer);
}

std::string text_of(const msgpack::object& reason)
{
    if (reason.type == msgpack::type::STR) {
        return printable({reason.via.str.ptr, reason.via.str.size});
    }
    JsonWriter writer(false, SIZE_MAX);
    writer.write(reason);
    return writer.text;
}

/// Without an incomplete character at the end, where a longer text was cut.
std::string_view without_cut_character(std::string_view text)
{
    for (std::size_t i = 1; i <= 3 && i <= text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[text.size() - i]);
        if (byte >= 0xc0) {
            return character_length(text.substr(text.size() - i)) == 0
                       ? text.substr(0, text.size() - i)
                       : text;
        }
    }
    return text;
}

bool is_str(const msgpack::object& object, std::string_view text)
{
    return object.type == msgpack::type::STR &&
           std::string_view(object.via.str.ptr, object.via.str.size) == text;
}

}  // namespace

Verdict verdict_of(const std::string& payload)
{
    Verdict success = {true, "", false};
    const auto tree = unpack_tree(payload);
    if (!tree || tree->get().type != msgpack::type::MAP) {
        return success;
    }
    const msgpack::object_map& map = tree->get().via.map;
    Verdict verdict = success;
    for (std::uint32_t i = 0; i < map.size; ++i) {
        const auto& [key, value] = map.ptr[i];
        if (is_str(key, "status")) {
            verdict.succeeded = !(value.type == msgpack::type::BOOLEAN && !value.via.boolean);
        } else if (is_str(key, "reason")) {
            verdict.reason = text_of(value);
        }
    }
    if (verdict.succeeded) {
        return success;
    }
    verdict.from_the_service =
        map.size == 2 && is_str(map.ptr[0].key, "status") && is_str(map.ptr[1].key, "reason");
    return verdict;
}

std::string render(const std::string& answer, View view, bool terminal)
{
    switch (view) {
        case View::text:
            return as_text(answer);
        case View::json:
            return as_json(answer);
        case View::hex:
            return hex_dump(answer);
        case View::raw:
            return answer;
        case View::automatic:
            break;
    }
    return terminal ? for_people(answer) : answer;
}

std::string first_line(const std::string& payload, std::size_t width)
{
    constexpr std::size_t longest_character = 4;
    const std::size_t enough = longest_character * (width + 1);
    std::string line;
    if (const Verdict verdict = verdict_of(payload); !verdict.succeeded) {
        line = verdict.reason;
    } else if (const auto tree = unpack_tree(payload)) {
        JsonWriter writer(false, enough);
        writer.write(tree->get());
        line = writer.text;
    } else {
        const std::string_view all = payload;
        std::string_view begin = all.substr(0, std::min(enough, all.find('\n')));
        if (begin.size() == enough) {
            begin = without_cut_character(begin);
        }
        line = is_utf8(begin) ? printable(begin) : hex(begin);
    }
    std::replace(line.begin(), line.end(), '\n', ' ');
    return cut_line(line, width);
}

std::string cut_line(const std::string& line, std::size_t width)
{
    std::size_t end = 0;
    std::size_t fits = 0;  // where to cut so that the dots still fit
    for (std::size_t count = 0; end < line.size(); ++count) {
        if (count == width) {
            return line.substr(0, fits) + "...";
        }
        end += std::max<std::size_t>(1, character_length(std::string_view(line).substr(end)));
        fits = count + 3 < width ? end : fits;
    }
    return line;
}

}  // namespace pexctl
