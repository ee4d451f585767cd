#include "tests/machine/Allocation.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"

namespace Machine {

namespace {

int left = 0;  ///< allocations up to the failing one; -1: it has failed

bool Strikes() {
  if (left <= 0 || IsWorking()) return false;
  if (--left > 0) return false;
  left = -1;
  return true;
}

}  // namespace

int errnoAfterMakingAnException = 0;

FailingAllocation::FailingAllocation(int number) {
  left = number;
}

void FailingAllocation::Stop() {
  if (left > 0) left = 0;
}

bool FailingAllocation::Happened() {
  return left < 0;
}

}  // namespace Machine

// Not inlined: the compiler would take malloc and free for mismatched with new and delete.
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const& /*tag*/) noexcept {
  return Machine::Strikes() ? nullptr : std::malloc(size == 0 ? 1 : size);
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

extern "C" void* __cxa_allocate_exception(std::size_t size) noexcept {
  static auto* const next = TheReal<void*(std::size_t)>("__cxa_allocate_exception");
  void* const memory = next(size);
  if (Machine::errnoAfterMakingAnException != 0) errno = Machine::errnoAfterMakingAnException;
  return memory;
}
