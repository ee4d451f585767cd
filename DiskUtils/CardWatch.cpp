#include "DiskUtils/CardWatch.h"

#include <chrono>
#include <utility>

namespace Quellon::DiskUtils {

namespace {

constexpr std::chrono::milliseconds kLookPause(1000);

}  // namespace

CardWatch::CardWatch(Disk const& disk, Tell toldTo) : state(disk), tell(std::move(toldTo)) {
  Start();
}

CardWatch::~CardWatch() {
  Cancel();
  Join();
}

bool CardWatch::IsUsable() const noexcept {
  using Finding = CardState::Finding;
  Finding const last = finding;
  return last == Finding::Good || last == Finding::Errors || last == Finding::Stuck;
}

void CardWatch::Run() {
  CardState::Report const report = state.Look();
  if (finding.exchange(report.finding) != report.finding) tell(report);
  over.WaitFor(kLookPause);
}

void CardWatch::Stopping() {
  over.Notify();
}

}  // namespace Quellon::DiskUtils
