// Memory that runs out. Replaces the global operator new, so include it in one source file of a
// test program only.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/support/Interpose.h"

/// While one exists, the allocation of that number, counted from 1, fails; just the one. What
/// interposed functions allocate for themselves does not count.
class FailingAllocation {
 public:
  explicit FailingAllocation(int number) { left = number; }
  FailingAllocation(FailingAllocation const&) = delete;
  FailingAllocation& operator=(FailingAllocation const&) = delete;
  ~FailingAllocation() { Stop(); }

  static void Stop() {
    if (left > 0) left = 0;
  }
  /// True once the allocation has failed.
  static bool Happened() { return left < 0; }

  static bool Strikes() {
    if (left <= 0 || Interpose::IsWorking()) return false;
    if (--left > 0) return false;
    left = -1;
    return true;
  }

 private:
  static inline int left = 0;  ///< allocations up to the failing one; -1: it has failed
};

// Not inlined: the compiler would take malloc and free for mismatched with new and delete.
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const& /*tag*/) noexcept {
  return FailingAllocation::Strikes() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](std::size_t size) {
  return operator new(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}
void operator delete[](void* memory) noexcept {
  operator delete(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}
