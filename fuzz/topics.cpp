// A filter and a topic, with a line feed or zero byte between them: whether they match, as the
// broker's own library says, and what the wildcards stand for.

#include <mosquitto.h>

#include <cstdint>

#include "expect.h"
#include "mqlink/filter_vars.h"

namespace {

using fuzz::expect;

/// The filter with what its wildcards matched in their places.
std::string filled_in(const std::string& filter, const mqlink::FilterVariables& vars)
{
    std::vector<std::string> levels = mqlink::split_levels(filter);
    int index = 0;
    for (std::string& level : levels) {
        if (level == "+" || level == "#") {
            level = vars.get(index++).value;
        }
    }
    std::string text = levels[0];
    for (std::size_t i = 1; i < levels.size(); ++i) {
        text += "/" + levels[i];
    }
    return text;
}

void expect_wildcards(const std::string& filter, const std::string& topic,
                      const mqlink::FilterVariables& vars)
{
    const std::string filled = filled_in(filter, vars);
    const bool stands_for_no_level = filter.back() == '#' && filled == topic + "/";
    if (!stands_for_no_level) {
        fuzz::expect_equal("the wildcards' values make the topic of the filter", topic, filled);
    }
    int index = 0;
    int pos = 0;
    for (const std::string& level : mqlink::split_levels(filter)) {
        if (level == "+" || level == "#") {
            const mqlink::Wildcard& wildcard = vars.get(index++);
            expect(wildcard.pos == pos, "a wildcard has the position of its level");
            expect(wildcard.multilevel == (level == "#"), "only # is of many levels");
            expect(wildcard.multilevel || wildcard.value.find('/') == std::string::npos,
                   "+ stands for one level");
        }
        ++pos;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const std::size_t end = text.find_first_of(std::string("\n\0", 2));
    if (end == std::string::npos) {
        return 0;
    }
    const std::string filter = text.substr(0, end);
    const std::string topic = text.substr(end + 1, text.find('\0', end + 1) - end - 1);
    const auto vars = mqlink::FilterVariables::match(filter, topic);
    if (mosquitto_sub_topic_check(filter.c_str()) != MOSQ_ERR_SUCCESS ||
        mosquitto_pub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS) {
        return 0;  // the broker refuses them; it is enough that nothing breaks
    }
    bool matches = false;
    if (mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &matches) == MOSQ_ERR_SUCCESS) {
        expect(vars.has_value() == matches, "a topic matches as it does for the broker");
        if (matches) {
            expect_wildcards(filter, topic, *vars);
        }
    }
    return 0;
}
