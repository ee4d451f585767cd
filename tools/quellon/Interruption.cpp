#include "Interruption.h"

#include <atomic>

namespace Quellon::Tool {

namespace {

std::atomic<bool> hasCome = false;
static_assert(std::atomic<bool>::is_always_lock_free, "for a signal handler");

void Note(int /*signal*/) {
  hasCome = true;
}

}  // namespace

Interruption::Interruption() noexcept {
  hasCome = false;
  struct sigaction noted {};
  noted.sa_handler = Note;
  noted.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    sigaction(kSignals[i], nullptr, &before[i]);
    if (before[i].sa_handler != SIG_IGN) sigaction(kSignals[i], &noted, nullptr);
  }
}

Interruption::~Interruption() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before[i], nullptr);
}

bool Interruption::HasCome() noexcept {
  return hasCome;
}

}  // namespace Quellon::Tool
