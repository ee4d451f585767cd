// A place where a thread is held.
#pragma once

#include <semaphore>

/// One thread waits here until another lets it go on.
class Gate {
 public:
  /// Waits for `Open`.
  void Wait() {
    arrived.release();
    open.acquire();
  }
  /// Returns once a thread waits, or has waited.
  void AwaitThread() { arrived.acquire(); }
  void Open() { open.release(); }

 private:
  std::binary_semaphore arrived{0};
  std::binary_semaphore open{0};
};
