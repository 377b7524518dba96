#pragma once

/// Makes the next operator new throw std::bad_alloc, once. The source file replaces the global
/// operators of the binary that contains it.
void fail_next_allocation();
