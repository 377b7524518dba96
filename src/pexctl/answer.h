#pragma once

#include <cstddef>
#include <string>

namespace pexctl {

/// How an answer is shown; docs/pexctl.md has the forms.
enum class View { automatic, text, json, hex, raw };

/// What a result's payload says about its job.
struct Verdict {
    bool succeeded;
    std::string reason;     ///< of a failure; a reason that is no str is shown as JSON
    bool from_the_service;  ///< a failure map of exactly two entries: there is no answer beside it
};

/// A failure is one whole MessagePack map in which "status" is false, the service's own or a
/// script's; anything else is a success.
Verdict verdict_of(const std::string& payload);

/// The bytes to write to standard output. `automatic` means raw unless `terminal`; on a terminal
/// it is JSON for one whole MessagePack array or map, text for valid UTF-8, else a hex dump. All
/// but raw are printable and, unless empty, end with a line feed.
std::string render(const std::string& answer, View view, bool terminal);

/// The answer, or a failure's reason, on one line of at most `width` characters (at least 4), for a
/// table; control characters are escaped.
std::string first_line(const std::string& payload, std::size_t width);

}  // namespace pexctl
