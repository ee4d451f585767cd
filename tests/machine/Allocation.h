// Memory that runs out.
#pragma once

#include "tests/machine/Failures.h"

namespace Machine {

/// While one exists, the allocation of that number, counted from 1, fails, and no other. What the
/// stand-in itself allocates does not count.
class FailingAllocation {
 public:
  explicit FailingAllocation(int number);
  explicit FailingAllocation(Point const& point) : FailingAllocation(point.number) {}
  FailingAllocation(FailingAllocation const&) = delete;
  FailingAllocation& operator=(FailingAllocation const&) = delete;
  ~FailingAllocation() { Stop(); }

  /// No allocation fails any more.
  static void Stop();

  /// True once the allocation has failed.
  static bool Happened();
};

/// What making an exception sets `errno` to; 0 leaves it alone.
extern int errnoAfterMakingAnException;

}  // namespace Machine
