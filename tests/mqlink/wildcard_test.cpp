#include "mqlink/wildcard.h"

#include <gtest/gtest.h>

namespace mqlink {
namespace {

struct Placeholder {
    int pos;
    bool multilevel;
};

TEST(WildcardTest, IsBuiltFromAPositionAndAFlagWithAnEmptyValue)
{
    const Wildcard single(3, false);
    EXPECT_EQ("", single.value);
    EXPECT_EQ(3, single.pos);
    EXPECT_FALSE(single.multilevel);

    const Wildcard multi(0, true);
    EXPECT_EQ("", multi.value);
    EXPECT_EQ(0, multi.pos);
    EXPECT_TRUE(multi.multilevel);
}

TEST(WildcardTest, OnePlaceholderPerWholeLevelWildcardInTheFiltersOrder)
{
    const struct {
        const char* filter;
        std::vector<Placeholder> placeholders;
    } cases[] = {
        {"in/cmd/+", {{2, false}}},
        {"in/cmd/7", {}},
        {"", {}},
        {"+", {{0, false}}},
        {"#", {{0, true}}},
        {"+/+", {{0, false}, {1, false}}},
        {"a/+/b/+/#", {{1, false}, {3, false}, {4, true}}},
        {"/+", {{1, false}}},          // an empty level counts
        {"//#", {{2, true}}},          // each of them
        {"+/", {{0, false}}},          // a last one too
        {"a+/b#", {}},                 // inside other text they are plain characters
        {"+a/#b/++/##/+#", {}},        //
        {"a+/+/ +/+ ", {{1, false}}},  // blanks are text
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.filter);
        const std::vector<Wildcard> made = Wildcard::generatePlaceholders(c.filter);
        ASSERT_EQ(c.placeholders.size(), made.size());
        for (std::size_t i = 0; i < made.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ("", made[i].value);
            EXPECT_EQ(c.placeholders[i].pos, made[i].pos);
            EXPECT_EQ(c.placeholders[i].multilevel, made[i].multilevel);
        }
    }
}

TEST(SplitLevelsTest, EverySlashSeparatesTwoLevels)
{
    const struct {
        const char* topic;
        std::vector<std::string> levels;
    } cases[] = {
        {"a", {"a"}},
        {"a/b/c", {"a", "b", "c"}},
        {"a//b", {"a", "", "b"}},
        {"/a", {"", "a"}},
        {"a/", {"a", ""}},
        {"/", {"", ""}},
        {"", {""}},
        {"in/cmd/job id", {"in", "cmd", "job id"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.topic);
        EXPECT_EQ(c.levels, split_levels(c.topic));
    }
}

}  // namespace
}  // namespace mqlink
