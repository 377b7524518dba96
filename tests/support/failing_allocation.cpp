#include "support/failing_allocation.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

bool fail_next = false;

}  // namespace

void fail_next_allocation()
{
    fail_next = true;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return std::exchange(fail_next, false) ? nullptr : std::malloc(size);
}

void* operator new(std::size_t size)
{
    if (void* memory = operator new(size, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
