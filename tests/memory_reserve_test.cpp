#include "memory_reserve.h"

#include <gtest/gtest.h>

#include <new>

#include "support/failing_calls.h"

namespace pex {
namespace {

/// What `operator new` does when it finds no memory: it tries again if this returns.
void find_no_memory()
{
    std::get_new_handler()();
}

class MemoryReserveTest : public testing::Test {
protected:
    ~MemoryReserveTest() override { std::set_new_handler(nullptr); }
};

TEST_F(MemoryReserveTest, TheFirstFailureHasTheReserveAndTheNextOneThrows)
{
    EXPECT_TRUE(hold_memory_reserve());
    EXPECT_NO_THROW(find_no_memory());
    EXPECT_THROW(find_no_memory(), std::bad_alloc);
    EXPECT_THROW(find_no_memory(), std::bad_alloc);
}

TEST_F(MemoryReserveTest, AReserveThatWasUsedIsHeldAgain)
{
    hold_memory_reserve();
    find_no_memory();
    hold_memory_reserve();
    hold_memory_reserve();  // there is one already
    EXPECT_NO_THROW(find_no_memory());
    EXPECT_THROW(find_no_memory(), std::bad_alloc);
}

TEST_F(MemoryReserveTest, WithoutMemoryForTheReserveAllocationsFailAsUsual)
{
    hold_memory_reserve();
    find_no_memory();
    {
        const failing_calls::Malloc failing;
        EXPECT_FALSE(hold_memory_reserve());
    }
    EXPECT_THROW(find_no_memory(), std::bad_alloc);
}

}  // namespace
}  // namespace pex
