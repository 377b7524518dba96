#include "pexctl/finding.h"

namespace pexctl {

std::string place_of(const std::string& key, const cProperties& config, const std::string& file)
{
    for (const cProperties::Line& line : config.lines()) {
        if (line.assigns && line.key == key) {
            return file + ":" + std::to_string(line.number);
        }
    }
    return file;
}

bool is_whole_number(const std::string& key, const cProperties& config)
{
    return config.getInt(key.c_str(), 0) == config.getInt(key.c_str(), 1);  // not the default
}

}  // namespace pexctl
