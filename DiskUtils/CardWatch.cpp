#include "DiskUtils/CardWatch.h"

#include <chrono>
#include <exception>
#include <utility>

#include "base/Logger.h"

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
  bool const isNew = finding.exchange(report.finding) != report.finding;
  try {
    if (isNew && tell) tell(report);
  } catch (std::exception const& e) {
    Tarvik::Ilog::LogFailure("CardWatch", e.what());
  }
  over.WaitFor(kLookPause);
}

void CardWatch::Stopping() {
  over.Notify();
}

}  // namespace Quellon::DiskUtils
