#include "base/internal/Console.h"

#include <poll.h>
#include <stdio_ext.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>

#include "base/internal/Decimal.h"
#include "base/internal/Restart.h"
#include "base/internal/WriteAll.h"

namespace Tarvik::Console {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A serial line of 115,200 baud, whose driver holds 4 KiB and says no word until nearly all of that
// is sent, needs a third of a second for it.
constexpr milliseconds kPatience(500);

enum class Flow {
  Free,    // took the last text, and has been told all
  Behind,  // did not take the last text, and was not waited for: worth waiting for
  Stuck,   // was waited for in vain: nobody waits until it takes something
};

constinit std::atomic<Flow> flow = Flow::Free;
constinit std::atomic<unsigned> dropped = 0;
constinit std::atomic<bool> isLineOpen =
    false;  // a part of a line is out that nobody will complete

/// What one caller waits in all.
class Patience {
 public:
  /// Waits until standard output takes something; false where it does not in time. Once the time is
  /// over it is asked once more: one that says it would, and then does not, is not asked for ever.
  bool AwaitRoom() noexcept {
    bool const wasOver = isOver;
    isOver = Left() == 0;
    if (wasOver) return false;
    return Poll([] { return 0; }) || (!isOver && Poll([this] { return Left(); }));
  }

 private:
  /// In milliseconds.
  [[nodiscard]] int Left() const noexcept {
    auto const left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count());
  }

  template <typename Limit>
  static bool Poll(Limit limit) noexcept {
    pollfd output{fileno(stdout), POLLOUT, {}};
    return RestartWhileInterrupted([&] { return poll(&output, 1, limit()); }) > 0;
  }

  steady_clock::time_point end =
      steady_clock::now() + (flow == Flow::Stuck ? milliseconds(0) : kPatience);
  bool isOver = false;
};

bool IsFull(int error) noexcept {
  return error == EAGAIN;
}

// False where a text was lost since standard output is full. What was printed before is left alone
// while another thread uses the stream: that may wait for this line.
bool FlushStream() noexcept {
  if (ftrylockfile(stdout) != 0) return true;
  bool const isLost = __fpending(stdout) > 0 && std::fflush(stdout) != 0 && IsFull(errno);
  funlockfile(stdout);
  return !isLost;
}

// False, with all of it still to be told, where standard output takes less than that.
bool TellDropped() noexcept {
  unsigned const count = dropped.exchange(0);
  bool const isOpen = isLineOpen.exchange(false);
  Decimal const number(count);
  std::array<char, 64> text;
  auto* end = text.begin();
  auto const append = [&end](std::string_view piece) { end = std::ranges::copy(piece, end).out; };
  if (isOpen) append("\n");
  if (count > 0) {
    append("[CONSOLE] ");
    append(number.View());
    append(" lines dropped\n");
  }
  std::string_view const told(text.begin(), end);
  std::size_t const done = WriteAll(fileno(stdout), told);
  if (done == told.size() || !IsFull(errno)) return true;
  dropped += count;
  if (isOpen || done > 0) isLineOpen = true;
  return false;
}

// Waits, and tells what was dropped.
bool Settle(Patience& patience) noexcept {
  while (patience.AwaitRoom()) {
    if (TellDropped()) return true;
  }
  flow = Flow::Stuck;
  return false;
}

bool WriteRest(std::string_view line, std::size_t& done) noexcept {
  done += WriteAll(fileno(stdout), line.substr(done));
  return done == line.size() || !IsFull(errno);  // a line that fails otherwise is lost, and no more
}

// A line of which `done` bytes are out.
void WriteInTime(std::string_view line, std::size_t done) noexcept {
  Patience patience;
  while (done > 0 ? patience.AwaitRoom() : Settle(patience)) {
    if (done == 0 && !FlushStream()) {
      Drop();
    } else if (WriteRest(line, done)) {
      flow = Flow::Free;
      return;
    }
  }
  flow = Flow::Stuck;
  ++dropped;
  if (done > 0) isLineOpen = true;
}

}  // namespace

// By write(2): in the stream's buffer the line would only be copied, and flushed at once.
void Write(std::string_view line) noexcept {
  std::size_t done = 0;
  if (flow.load(std::memory_order_relaxed) == Flow::Free) [[likely]] {
    if (!FlushStream()) {
      Drop();
    } else if (WriteRest(line, done)) {
      return;
    }
  }
  WriteInTime(line, done);
}

void AwaitRoom() noexcept {
  Patience patience;
  if (Settle(patience)) flow = Flow::Free;
}

void Drop() noexcept {
  ++dropped;
  isLineOpen = true;
  Flow free = Flow::Free;
  flow.compare_exchange_strong(free, Flow::Behind);
}

void ForgetDropped() noexcept {
  dropped = 0;
  isLineOpen = false;
}

}  // namespace Tarvik::Console
