#pragma once

#include <string>
#include <vector>

namespace mqlink {

/// One wildcard of a topic filter and the topic text that it matched. Only a whole level is a
/// wildcard: "+" and "#" inside other text are plain characters.
struct Wildcard {
    Wildcard(int pos, bool multilevel);

    /// One entry per wildcard of `filter`, in order, with empty values.
    static std::vector<Wildcard> generatePlaceholders(const std::string& filter);

    std::string value;
    int pos;          ///< index of its level in the filter, from 0
    bool multilevel;  ///< true for "#", false for "+"
};

/// The text between the '/' of a topic or a filter: "a//b" has the three levels "a", "" and "b".
std::vector<std::string> split_levels(const std::string& topic);

}  // namespace mqlink
