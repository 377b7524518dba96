#include "mqlink/wildcard.h"

namespace mqlink {

Wildcard::Wildcard(int pos, bool multilevel) : pos(pos), multilevel(multilevel) {}

std::vector<Wildcard> Wildcard::generatePlaceholders(const std::string& filter)
{
    std::vector<Wildcard> placeholders;
    int pos = 0;
    for (const std::string& level : split_levels(filter)) {
        if (level == "+" || level == "#") {
            placeholders.emplace_back(pos, level == "#");
        }
        ++pos;
    }
    return placeholders;
}

std::vector<std::string> split_levels(const std::string& topic)
{
    std::vector<std::string> levels;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = topic.find('/', begin);
        levels.push_back(topic.substr(begin, end - begin));
        if (end == std::string::npos) {
            return levels;
        }
        begin = end + 1;
    }
}

}  // namespace mqlink
