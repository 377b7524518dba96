#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mqlink/wildcard.h"

namespace mqlink {

/// What the wildcards of one topic filter matched in one message's topic.
class FilterVariables {
public:
    /// Matches `topic` against `filter` by the rules of MQTT 3.1.1, section 4.7: "+" stands for
    /// exactly one level, a last "#" for any number of levels, and neither for a first level that
    /// begins with '$'. Empty if they do not match.
    static std::optional<FilterVariables> match(const std::string& filter,
                                                const std::string& topic);

    /// The wildcard with this index, from 0 in the filter's order. Throws std::out_of_range.
    const Wildcard& get(int index) const;

private:
    explicit FilterVariables(std::vector<Wildcard> wildcards);

    std::vector<Wildcard> _wildcards;
};

}  // namespace mqlink
