#include "memory_reserve.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace pex {

namespace {

/// Enough for what a failed job still needs: its records, its failure result and the way out.
constexpr std::size_t reserve_size = 65536;

void* reserve = nullptr;

void release_reserve()
{
    if (reserve == nullptr) {
        throw std::bad_alloc();
    }
    std::free(std::exchange(reserve, nullptr));
}

}  // namespace

bool hold_memory_reserve()
{
    if (reserve == nullptr) {
        reserve = std::malloc(reserve_size);
        std::set_new_handler(release_reserve);
    }
    return reserve != nullptr;
}

}  // namespace pex
