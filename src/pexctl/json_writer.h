#pragma once

#include <cstddef>
#include <msgpack.hpp>
#include <string>
#include <string_view>

namespace pexctl {

/// MessagePack as JSON, without loss; docs/pexctl.md has the form. Recursive: the caller bounds the
/// depth. Indented, or on one line, which ends soon after `limit` characters.
std::string indented_json(const msgpack::object& object);
std::string json_line(const msgpack::object& object, std::size_t limit);

/// UTF-8 text as a JSON string that a terminal can show.
std::string json_string(std::string_view text);

/// Bytes in the form of `kind`, such as "$bin".
std::string json_bytes(const char* kind, std::string_view bytes);

}  // namespace pexctl
