#pragma once

#include <array>
#include <cstddef>

namespace pex {

/// The memory of one Lua state. A state with its libraries is hundreds of small blocks, all made
/// and freed for each job, which is most of a short job's work: here they are cut from one piece,
/// and a freed one serves the next of its size. Large blocks, and all once the piece is used up,
/// come from malloc(3).
class LuaPool {
public:
    LuaPool() = default;
    LuaPool(const LuaPool&) = delete;
    LuaPool& operator=(const LuaPool&) = delete;

    /// A lua_Alloc whose `pool` is a LuaPool, which must outlive the state. Blocks that malloc(3)
    /// made before the state got this allocator are taken, too.
    static void* allocate(void* pool, void* block, std::size_t old_size, std::size_t new_size);

private:
    static constexpr std::size_t piece_size = 32768;  // three times what the libraries take
    static constexpr std::size_t largest_small = 512;
    static constexpr std::size_t grain = alignof(std::max_align_t);

    struct FreeBlock {
        FreeBlock* next;
    };

    bool holds(const void* block) const;
    void* take(std::size_t size);
    void give_back(void* block, std::size_t size);

    alignas(std::max_align_t) std::array<char, piece_size> _piece;  ///< blocks of whole grains
    std::size_t _used = 0;                                          ///< bytes of _piece cut so far
    std::array<FreeBlock*, largest_small / grain + 1> _free = {};   ///< by size in grains
};

}  // namespace pex
