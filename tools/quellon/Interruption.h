// A technician, or the system, who ends long work.
#pragma once

#include <array>
#include <csignal>

namespace Quellon::Tool {

/// While one exists, SIGINT, SIGTERM, SIGHUP and SIGPIPE do not end the process. They are noted, so
/// that it can leave the card as it found it. Signals that are ignored stay so. One at a time;
/// commands that are run meanwhile are ended by them as ever.
class Interruption {
 public:
  Interruption() noexcept;
  Interruption(Interruption const&) = delete;
  Interruption& operator=(Interruption const&) = delete;
  ~Interruption();

  /// Whether one of them has arrived.
  [[nodiscard]] static bool HasCome() noexcept;

 private:
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

  std::array<struct sigaction, kSignals.size()> before{};
};

}  // namespace Quellon::Tool
