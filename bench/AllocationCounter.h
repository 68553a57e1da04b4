// Heap allocations of a benchmark program, counted.
//
// Replaces the global operator new / delete pair with malloc and free plus a
// counter, so a benchmark can read CorvidBench::allocations before and after
// the code under test and report allocations per operation. The
// replacements are definitions (the language does not let them be inline):
// include this header in exactly one file of a program, which for a
// benchmark is its only file. Counting costs one increment per allocation.
#pragma once

#include <Brio/Types.h>

#include <cstdlib>
#include <new>

namespace CorvidBench {

inline U64 allocations = 0;

}  // namespace CorvidBench

// GCC cannot see that these replace the global pair, and warns that free()
// meets memory from operator new.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t n) {
  ++CorvidBench::allocations;
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop
