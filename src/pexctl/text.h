#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pexctl {

/// The length of the UTF-8 character that `text`, which is not empty, begins with (RFC 3629); 0 if
/// it is none.
std::size_t character_length(std::string_view text);

bool is_utf8(std::string_view text);

/// `text` without an incomplete character at its end, where a longer text was cut.
std::string_view without_cut_character(std::string_view text);

/// C0 and C1 controls and DEL: a terminal might obey them. `character` is a whole one.
bool is_control(std::string_view character);

/// Text that a terminal can show: what is not UTF-8, and controls but tab and line ends, become
/// "\x1b" and the like.
std::string printable(std::string_view text);

/// At most `width` characters of a line, with "..." at the end if it has more.
std::string cut_line(const std::string& line, std::size_t width);

/// Two digits a byte, in lower case.
std::string hex(std::string_view bytes);

}  // namespace pexctl
