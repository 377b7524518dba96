#include "mqlink/filter_vars.h"

#include <gtest/gtest.h>
#include <mosquittopp.h>

#include <random>
#include <stdexcept>

namespace mqlink {
namespace {

TEST(FilterVariablesTest, EachWildcardHasTheTextThatItMatched)
{
    const struct {
        const char* filter;
        const char* topic;
        std::vector<std::string> values;
    } cases[] = {
        {"in/cmd/+", "in/cmd/42", {"42"}},
        {"in/cmd/+", "in/cmd/", {""}},  // an empty last level is a level
        {"in/cmd/+", "in/cmd/a b+#", {"a b+#"}},
        {"in/cmd/+", "in/cmd/\xc3\xa9\xff", {"\xc3\xa9\xff"}},  // bytes, in no encoding
        {"in/cmd/42", "in/cmd/42", {}},
        {"+/+", "a/b", {"a", "b"}},
        {"+/+", "/", {"", ""}},
        {"a/+/c/+", "a/b/c/d", {"b", "d"}},
        {"a/#", "a/b/c", {"b/c"}},
        {"a/#", "a/b", {"b"}},
        {"a/#", "a/", {""}},
        {"a/#", "a", {""}},  // "#" stands for no level too
        {"a/#", "a//b/", {"/b/"}},
        {"#", "a/b", {"a/b"}},
        {"#", "/a", {"/a"}},
        {"+/b/#", "a/b/c/d", {"a", "c/d"}},
        {"+/#", "a", {"a", ""}},
        {"$SYS/+", "$SYS/load", {"load"}},
        {"$SYS/#", "$SYS/load/1", {"load/1"}},
        {"+/b", "a$/b", {"a$"}},
        {"a/+", "a/$b", {"$b"}},  // '$' counts at the very beginning alone
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.filter) + " and " + c.topic);
        const auto vars = FilterVariables::match(c.filter, c.topic);
        ASSERT_TRUE(vars.has_value());
        const int count = static_cast<int>(c.values.size());
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(c.values[static_cast<std::size_t>(i)], vars->get(i).value);
        }
        EXPECT_THROW(vars->get(count), std::out_of_range);
    }
}

TEST(FilterVariablesTest, OtherTopicsDoNotMatch)
{
    const struct {
        const char* filter;
        const char* topic;
    } cases[] = {
        {"in/cmd/+", "in/cmd/1/2"},  // more levels than the filter
        {"in/cmd/+", "in/cmd/1/"},   //
        {"in/cmd/+", "in/cmd"},      // fewer levels
        {"in/cmd/+", "in/other/1"},
        {"in/cmd/+", "IN/cmd/1"},  // letter case counts
        {"in/cmd/+", "/in/cmd/1"},
        {"in/cmd/+", "in/cmd1"},
        {"in/cmd/+", "x/in/cmd/1"},
        {"a", "a/b"},
        {"a", "b"},
        {"a", "a/"},
        {"a/", "a"},
        {"a/b/#", "a"},
        {"a+", "ab"},  // no wildcard: not a whole level
        {"+", "$SYS"},
        {"#", "$SYS/load"},
        {"+/load", "$SYS/load"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.filter) + " and " + c.topic);
        EXPECT_FALSE(FilterVariables::match(c.filter, c.topic).has_value());
    }
}

TEST(FilterVariablesTest, AWildcardTellsItsPlaceAndKind)
{
    const auto vars = FilterVariables::match("a/+/b/#", "a/1/b/2/3");
    ASSERT_TRUE(vars.has_value());
    EXPECT_EQ("1", vars->get(0).value);
    EXPECT_EQ(1, vars->get(0).pos);
    EXPECT_FALSE(vars->get(0).multilevel);
    EXPECT_EQ("2/3", vars->get(1).value);
    EXPECT_EQ(3, vars->get(1).pos);
    EXPECT_TRUE(vars->get(1).multilevel);
}

TEST(FilterVariablesTest, AnIndexOutsideThrows)
{
    const auto vars = FilterVariables::match("in/cmd/+", "in/cmd/42");
    ASSERT_TRUE(vars.has_value());
    for (const int index : {-1, 1, 2, 1000000, -2147483647 - 1, 2147483647}) {
        SCOPED_TRACE(index);
        EXPECT_THROW(vars->get(index), std::out_of_range);
    }
    EXPECT_EQ("42", vars->get(0).value);
}

/// All texts of 1 to `depth` levels over `levels`.
std::vector<std::string> all_texts(const std::vector<std::string>& levels, int depth)
{
    std::vector<std::string> texts = levels;
    std::vector<std::string> longest = levels;
    for (int i = 1; i < depth; ++i) {
        std::vector<std::string> longer;
        for (const std::string& head : longest) {
            for (const std::string& level : levels) {
                longer.push_back(head + "/" + level);
            }
        }
        longest = std::move(longer);
        texts.insert(texts.end(), longest.begin(), longest.end());
    }
    return texts;
}

std::vector<std::string> without_empty(std::vector<std::string> texts)
{
    std::vector<std::string> kept;
    for (std::string& text : texts) {
        if (!text.empty()) {  // MQTT knows neither an empty topic nor an empty filter
            kept.push_back(std::move(text));
        }
    }
    return kept;
}

/// `filter` with the values in place of its wildcards.
std::string filled_in(const std::string& filter, const FilterVariables& vars)
{
    std::string text;
    int next_wildcard = 0;
    for (const std::string& level : split_levels(filter)) {
        const bool is_wildcard = level == "+" || level == "#";
        text += "/" + (is_wildcard ? vars.get(next_wildcard++).value : level);
    }
    return text.substr(1);
}

/// Compares with both of the library's functions, and the values with the topic.
void expect_agreement(const std::string& filter, const std::string& topic)
{
    bool c_matches = false;
    bool cpp_matches = false;
    ASSERT_EQ(MOSQ_ERR_SUCCESS,
              mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &c_matches));
    ASSERT_EQ(MOSQ_ERR_SUCCESS,
              mosqpp::topic_matches_sub(filter.c_str(), topic.c_str(), &cpp_matches));
    const auto vars = FilterVariables::match(filter, topic);
    ASSERT_EQ(c_matches, vars.has_value()) << filter << " and " << topic;
    ASSERT_EQ(cpp_matches, vars.has_value()) << filter << " and " << topic;
    if (vars) {
        const std::string text = filled_in(filter, *vars);
        // "a/#" matches "a" as well.
        ASSERT_TRUE(text == topic || text == topic + "/") << filter << " and " << topic;
    }
}

TEST(FilterVariablesTest, AgreesWithTheLibraryOnAllShortFiltersAndTopics)
{
    std::vector<std::string> filters = without_empty(all_texts({"", "a", "$b", "+"}, 3));
    for (const std::string& head : all_texts({"", "a", "$b", "+"}, 3)) {
        filters.push_back(head + "/#");
    }
    filters.push_back("#");
    const std::vector<std::string> topics = without_empty(all_texts({"", "a", "$b", "c"}, 4));
    for (const std::string& filter : filters) {
        for (const std::string& topic : topics) {
            expect_agreement(filter, topic);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

std::string random_text(std::mt19937& random, const std::vector<std::string>& levels)
{
    std::string text;
    const std::size_t count = 1 + random() % 8;
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : "/") + levels[random() % levels.size()];
    }
    return text;
}

TEST(FilterVariablesTest, AgreesWithTheLibraryOnRandomLongFiltersAndTopics)
{
    std::mt19937 random(20261121);
    int matches = 0;
    for (int i = 0; i < 50000; ++i) {
        std::string filter = random_text(random, {"+", "+", "+", "", "in", "cmd"});
        if (random() % 3 == 0) {
            filter += "/#";
        }
        const std::string topic = random_text(random, {"in", "cmd", "", "$x", "a b"});
        if (filter.empty() || topic.empty()) {
            continue;
        }
        expect_agreement(filter, topic);
        if (HasFatalFailure()) {
            return;
        }
        matches += FilterVariables::match(filter, topic).has_value();
    }
    EXPECT_GT(matches, 1000);  // or the texts would be too unlike each other to say anything
}

}  // namespace
}  // namespace mqlink
