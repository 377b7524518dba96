#include "pexctl/near_name.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <numeric>

namespace pexctl {

namespace {

/// The least number of characters to insert, delete or replace (Levenshtein's distance).
std::size_t distance(const std::string& from, const std::string& to)
{
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
}

}  // namespace

std::vector<std::string> near_names(const std::string& name,
                                    const std::vector<std::string>& candidates)
{
    const std::size_t tolerance = 1 + name.size() / 4;
    std::multimap<std::size_t, std::string> near;
    for (const std::string& candidate : candidates) {
        const bool same_but_case = strcasecmp(name.c_str(), candidate.c_str()) == 0;
        const std::size_t typos = same_but_case ? 0 : distance(name, candidate);
        if (typos <= tolerance) {
            near.emplace(typos, candidate);
        }
    }
    std::vector<std::string> names;
    for (const auto& [typos, candidate] : near) {
        names.push_back(candidate);
    }
    return names;
}

}  // namespace pexctl
