#include "pexctl/near_name.h"

#include <gtest/gtest.h>

namespace {

using Names = std::vector<std::string>;

TEST(NearNamesTest, AreThoseWithFewTypos)
{
    const struct {
        const char* fact;
        const char* name;
        Names candidates;
        Names near;
    } cases[] = {
        {"nothing to choose from", "greet", {}, {}},
        {"a missing letter", "gret", {"greet"}, {"greet"}},
        {"an additional letter", "greett", {"greet"}, {"greet"}},
        {"a wrong letter", "grert", {"greet"}, {"greet"}},
        {"two letters changed places", "sttaus", {"status"}, {"status"}},
        {"letter case counts for nothing", "MACHINE", {"machine"}, {"machine"}},
        {"one typo is much in a short name", "sum", {"sun", "bun"}, {"sun"}},
        {"a quarter of a longer name may be wrong", "mashyne1", {"machine"}, {"machine"}},
        {"more may not", "mashyne12", {"machine"}, {}},
        {"the nearest comes first", "status", {"stanus2", "statu"}, {"statu", "stanus2"}},
        {"equally near ones keep their order", "dd", {"dc", "db"}, {"dc", "db"}},
        {"an empty name", "", {"a", "ab"}, {"a"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.near, pexctl::near_names(c.name, c.candidates));
    }
}

}  // namespace
