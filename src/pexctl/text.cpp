#include "pexctl/text.h"

#include <algorithm>

namespace pexctl {

namespace {

std::string escaped(std::string_view bytes)
{
    std::string text;
    for (const char c : bytes) {
        text += "\\x" + hex({&c, 1});
    }
    return text;
}

}  // namespace

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

bool is_control(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20 || first == 0x7f ||
           (first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0);
}

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

}  // namespace pexctl
