#include "mqlink/filter_vars.h"

#include <utility>

namespace mqlink {

namespace {

bool is_wildcard(const std::string& level)
{
    return level == "+" || level == "#";
}

/// The levels from `first` on, with their '/' again.
std::string join_from(const std::vector<std::string>& levels, std::size_t first)
{
    std::string text;
    for (std::size_t i = first; i < levels.size(); ++i) {
        text += (i == first ? "" : "/") + levels[i];
    }
    return text;
}

}  // namespace

std::optional<FilterVariables> FilterVariables::match(const std::string& filter,
                                                      const std::string& topic)
{
    const std::vector<std::string> wanted = split_levels(filter);
    const std::vector<std::string> levels = split_levels(topic);
    if (is_wildcard(wanted[0]) && topic[0] == '$') {
        return std::nullopt;
    }

    std::vector<Wildcard> wildcards = Wildcard::generatePlaceholders(filter);
    std::size_t next_wildcard = 0;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i] == "#") {  // also stands for no level at all: "a/#" matches "a"
            wildcards[next_wildcard].value = join_from(levels, i);
            return FilterVariables(std::move(wildcards));
        }
        if (i >= levels.size()) {
            return std::nullopt;
        }
        if (wanted[i] == "+") {
            wildcards[next_wildcard++].value = levels[i];
        } else if (wanted[i] != levels[i]) {
            return std::nullopt;
        }
    }
    if (levels.size() > wanted.size()) {
        return std::nullopt;
    }
    return FilterVariables(std::move(wildcards));
}

const Wildcard& FilterVariables::get(int index) const
{
    return _wildcards.at(static_cast<std::size_t>(index));
}

FilterVariables::FilterVariables(std::vector<Wildcard> wildcards) : _wildcards(std::move(wildcards))
{
}

}  // namespace mqlink
