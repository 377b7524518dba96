#include "lua_tools/lua_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <lua.hpp>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/failing_calls.h"

namespace pex {
namespace {

constexpr std::size_t table_type = LUA_TTABLE;  // what Lua passes as the old size of a new block

class LuaPoolTest : public testing::Test {
protected:
    char* make(std::size_t size) { return resize(nullptr, table_type, size); }

    char* resize(char* block, std::size_t old_size, std::size_t new_size)
    {
        return static_cast<char*>(LuaPool::allocate(&pool, block, old_size, new_size));
    }

    void free(char* block, std::size_t size) { EXPECT_EQ(nullptr, resize(block, size, 0)); }

    LuaPool pool;
};

TEST_F(LuaPoolTest, ABlockKeepsItsBytesWhileItGrows)
{
    char* block = make(3);
    std::memcpy(block, "abc", 3);
    const std::size_t sizes[] = {3, 16, 17, 512, 513, 40000, 200000};
    for (std::size_t i = 1; i < std::size(sizes); ++i) {
        SCOPED_TRACE(sizes[i]);
        block = resize(block, sizes[i - 1], sizes[i]);
        ASSERT_NE(nullptr, block);
        EXPECT_EQ("abc", std::string(block, 3));
        block[sizes[i] - 1] = 'z';  // the new end is there, which the sanitizers check
    }
    free(block, 200000);
}

TEST_F(LuaPoolTest, ASmallBlockStaysWhereItIsWhenItShrinks)
{
    char* const block = make(500);
    std::memcpy(block, "abc", 3);
    EXPECT_EQ(block, resize(block, 500, 3));
    EXPECT_EQ("abc", std::string(block, 3));
    free(block, 3);
}

TEST_F(LuaPoolTest, AFreedBlockServesTheNextOfItsSize)
{
    char* const first = make(100);
    char* const second = make(100);
    free(first, 100);
    free(second, 100);
    EXPECT_EQ(second, make(97));  // in whole grains
    EXPECT_EQ(first, make(100));
    EXPECT_NE(first, make(100));
}

TEST_F(LuaPoolTest, SmallBlocksLieInThePoolItselfUntilItIsFull)
{
    const auto inside = [this](const char* block) {
        const auto begin = reinterpret_cast<std::uintptr_t>(&pool);
        const auto at = reinterpret_cast<std::uintptr_t>(block);
        return begin <= at && at < begin + sizeof pool;
    };
    std::vector<char*> blocks;
    for (int i = 0; i < 64; ++i) {
        blocks.push_back(make(512));
        EXPECT_TRUE(inside(blocks.back())) << i;
    }
    blocks.push_back(make(512));
    EXPECT_FALSE(inside(blocks.back()));
    for (char* const block : blocks) {
        free(block, 512);
    }
    char* const large = make(513);
    EXPECT_FALSE(inside(large));
    free(large, 513);
}

TEST_F(LuaPoolTest, TakesBlocksThatMallocMade)
{
    auto* block = static_cast<char*>(std::malloc(4));
    std::memcpy(block, "abc", 4);
    block = resize(block, 4, 60000);
    EXPECT_STREQ("abc", block);
    block = resize(block, 60000, 4);
    EXPECT_STREQ("abc", block);
    free(block, 4);  // the sanitizers see whether it is given back
}

TEST_F(LuaPoolTest, FreeingNothingIsHarmless)
{
    EXPECT_EQ(nullptr, resize(nullptr, 0, 0));
}

TEST_F(LuaPoolTest, ABlockThatCannotGrowIsLeftAlone)
{
    char* const block = make(3);
    std::memcpy(block, "abc", 3);
    {
        const failing_calls::Malloc no_memory;
        EXPECT_EQ(nullptr, resize(block, 3, 1000));
    }
    EXPECT_EQ("abc", std::string(block, 3));
    free(block, 3);
}

TEST_F(LuaPoolTest, ALargeBlockThatMallocCannotShrinkStaysWhereItIs)
{
    char* block = make(60000);
    std::memcpy(block, "abc", 3);
    {
        const failing_calls::Malloc no_memory;
        EXPECT_EQ(nullptr, resize(block, 60000, 60001));
        ASSERT_EQ(block, resize(block, 60000, 600));
    }
    EXPECT_EQ("abc", std::string(block, 3));
    free(block, 600);
}

/// Blocks of random sizes, each filled with a byte of its own.
TEST_F(LuaPoolTest, BlocksNeverOverlapAndAreAligned)
{
    std::mt19937 random(7);
    std::map<char*, std::pair<std::size_t, char>> blocks;
    const auto expect_intact = [](const char* block, std::size_t size, char fill) {
        for (std::size_t i = 0; i < size; ++i) {
            ASSERT_EQ(fill, block[i]);
        }
    };
    const auto keep = [&](char* block, std::size_t size, char fill) {
        ASSERT_EQ(0u, reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t));
        std::memset(block, fill, size);
        ASSERT_TRUE(blocks.emplace(block, std::make_pair(size, fill)).second);
    };
    for (int step = 0; step < 20000; ++step) {
        const std::size_t size = 1 + random() % (random() % 10 == 0 ? 3000 : 200);
        if (blocks.size() < 150 && random() % 2 == 0) {
            keep(make(size), size, static_cast<char>(step));
            continue;
        }
        if (blocks.empty()) {
            continue;
        }
        const auto chosen = std::next(blocks.begin(), random() % blocks.size());
        auto [block, content] = *chosen;
        blocks.erase(chosen);
        expect_intact(block, content.first, content.second);
        if (random() % 2 == 0) {
            free(block, content.first);
        } else {
            char* const moved = resize(block, content.first, size);
            expect_intact(moved, std::min(size, content.first), content.second);
            keep(moved, size, static_cast<char>(step));
        }
    }
    for (const auto& [block, content] : blocks) {
        expect_intact(block, content.first, content.second);
        free(block, content.first);
    }
}

}  // namespace
}  // namespace pex
