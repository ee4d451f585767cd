// A load of a catalogue that is held where a test wants it.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/machine/Machine.h"
#include "tests/support/LogFile.h"

/// Holds the load, at its first entry if not before, until it is let go.
class HeldLoad {
 public:
  HeldLoad() {
    Machine::hooks().sleep = [this](std::chrono::nanoseconds pause) {
      if (pause == std::chrono::milliseconds(1)) Hold();  // that of an entry
    };
  }
  HeldLoad(HeldLoad const&) = delete;
  HeldLoad& operator=(HeldLoad const&) = delete;
  ~HeldLoad() { LetGo(); }

  void Hold() {
    isLoading = true;
    isLoading.notify_all();
    isOpen.wait(false);
  }
  void Await() { isLoading.wait(false); }
  bool IsHeld() { return !isOpen; }
  void LetGo() {
    isOpen = true;
    isOpen.notify_all();
  }

 private:
  std::atomic<bool> isLoading = false;
  std::atomic<bool> isOpen = false;
};

/// Whether `holds` becomes true before long, by the clock that no test here changes.
template <typename Condition>
bool ComesTrue(Condition holds) {
  auto const deadline = std::chrono::system_clock::now() + LogFile::kPatience;
  while (!holds() && std::chrono::system_clock::now() < deadline) std::this_thread::yield();
  return holds();
}
