#include "lua_tools/lua_pool.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>

namespace pex {

/// A block that cannot shrink stays as it is, since Lua takes it for granted that it can: an error
/// at that moment would be raised outside of any protected call.
void* LuaPool::allocate(void* pool, void* block, std::size_t old_size, std::size_t new_size)
{
    LuaPool& self = *static_cast<LuaPool*>(pool);
    if (block == nullptr) {  // old_size is a type then, not a size
        return new_size == 0 ? nullptr : self.take(new_size);
    }
    if (!self.holds(block)) {
        if (new_size == 0) {
            std::free(block);
            return nullptr;
        }
        void* const resized = std::realloc(block, new_size);
        return resized == nullptr && new_size <= old_size ? block : resized;
    }
    if (new_size == 0) {
        self.give_back(block, old_size);
        return nullptr;
    }
    if (new_size <= old_size) {
        return block;
    }
    void* const grown = self.take(new_size);
    if (grown != nullptr) {
        std::memcpy(grown, block, old_size);
        self.give_back(block, old_size);
    }
    return grown;
}

bool LuaPool::holds(const void* block) const
{
    const std::less<const void*> before;  // `<` is defined within one array only
    return !before(block, _piece.data()) && before(block, _piece.data() + _piece.size());
}

void* LuaPool::take(std::size_t size)
{
    if (size > largest_small) {
        return std::malloc(size);
    }
    const std::size_t grains = (size + grain - 1) / grain;
    if (FreeBlock* const block = _free[grains]) {
        _free[grains] = block->next;
        return block;
    }
    if (_used + grains * grain > _piece.size()) {
        return std::malloc(size);
    }
    void* const block = _piece.data() + _used;
    _used += grains * grain;
    return block;
}

/// A block that was shrunk goes to the smaller size, and the rest of it is lost until the end.
void LuaPool::give_back(void* block, std::size_t size)
{
    const std::size_t grains = (size + grain - 1) / grain;
    _free[grains] = new (block) FreeBlock{_free[grains]};
}

}  // namespace pex
