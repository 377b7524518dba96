#pragma once

namespace pex {

/// Sets memory aside for the moment when an allocation finds none, unless it is there already. From
/// then on, the first `operator new` that fails gives the reserve back and succeeds after all, if
/// it asks for less than that; the next one that fails throws std::bad_alloc. Returns whether the
/// reserve is there.
///
/// Without it the end of the memory would be the end of the service: log4cpp's functions are
/// declared to throw nothing, so a record that finds no memory ends the process.
bool hold_memory_reserve();

}  // namespace pex
