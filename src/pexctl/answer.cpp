#include "pexctl/answer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <msgpack.hpp>
#include <optional>
#include <string_view>

#include "pexctl/json_writer.h"
#include "pexctl/text.h"

namespace pexctl {

namespace {

constexpr std::size_t deepest = 512;

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
        return indented_json(tree->get()) + "\n";
    }
    return (is_utf8(answer) ? json_string(answer) : json_bytes("$bin", answer)) + "\n";
}

std::string for_people(const std::string& answer)
{
    if (const auto tree = unpack_tree(answer)) {
        return indented_json(tree->get()) + "\n";
    }
    return is_utf8(answer) ? as_text(answer) : hex_dump(answer);
}

std::string text_of(const msgpack::object& reason)
{
    if (reason.type == msgpack::type::STR) {
        return printable({reason.via.str.ptr, reason.via.str.size});
    }
    return json_line(reason, SIZE_MAX);
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
        line = json_line(tree->get(), enough);
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

}  // namespace pexctl
