#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace pexctl {

/// A job's arguments, as they are sent.
struct Arguments {
    std::string packed;  ///< one MessagePack object
    /// What the script will not get as it was written. One line each: where, as a JSONPath
    /// (RFC 9535, "$.sizes[0]"), and what arrives instead.
    std::vector<std::string> losses;
    /// The same for map keys, nil and NaN, that would end the daemon.
    std::vector<std::string> deadly;
};

/// Arguments that cannot be sent. The text says where: by line and column (both from 1) of the
/// JSON, or by byte offset of the MessagePack.
class BadArguments : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Packs JSON (RFC 8259), in the order in which it is written: an integer as an integer of the
/// shortest form, a number with a fraction or an exponent as a float 64, a string as str.
/// Throws BadArguments.
Arguments arguments_from_json(const std::string& text);

/// Takes one whole MessagePack object as it is. Throws BadArguments.
Arguments arguments_from_msgpack(const std::string& bytes);

}  // namespace pexctl
