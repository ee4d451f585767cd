#include "base/internal/Console.h"

#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iterator>

#include "base/internal/Decimal.h"
#include "base/internal/Restart.h"
#include "base/internal/WriteAll.h"

namespace Tarvik::Console {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A serial line of 115,200 baud needs a third of a second for the 4 KiB that its driver holds, and
// takes nothing more until nearly all of them are sent.
constexpr std::chrono::milliseconds kPatience(500);

enum class Flow {
  Free,    // took the last text, and has been told all
  Behind,  // did not take the last text, and was not waited for: worth waiting for
  Stuck,   // was waited for in vain: nobody waits until it takes something
};

constinit std::atomic<Flow> flow = Flow::Free;
constinit std::atomic<unsigned> dropped = 0;
constinit std::atomic<bool> isLineOpen = false;  // a part is out that nobody will complete

void BeBehind() noexcept {
  Flow free = Flow::Free;
  flow.compare_exchange_strong(free, Flow::Behind);
}

// Another thread may drop a text meanwhile: it counts it first, and this one looks last.
void BeFree() noexcept {
  flow = Flow::Free;
  if (dropped != 0) BeBehind();
}

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

constexpr bool IsFull(int error) noexcept {
  return error == EAGAIN;
}

// False where a text is lost since standard output is full. What was printed before is left alone
// while another thread uses the stream: that may wait for this line.
inline bool FlushStream() noexcept {
  if (ftrylockfile(stdout) != 0) return true;
  bool const isLost = __fpending(stdout) > 0 && std::fflush(stdout) != 0 && IsFull(errno);
  funlockfile(stdout);
  if (isLost) Drop();
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

// True where nothing of the line is left to be tried: it is out, or fails for another reason than
// that standard output is full, and is lost.
bool WriteRest(std::string_view line, std::size_t& done) noexcept {
  done += WriteAll(fileno(stdout), line.substr(done));
  return done == line.size() || !IsFull(errno);
}

// A line of which `done` bytes are out.
void WriteInTime(std::string_view line, std::size_t done) noexcept {
  Patience patience;
  while (done > 0 ? patience.AwaitRoom() : Settle(patience)) {
    if (done == 0 && !FlushStream()) continue;
    if (WriteRest(line, done)) return BeFree();
  }
  flow = Flow::Stuck;
  ++dropped;
  if (done > 0) isLineOpen = true;
}

// What nearly no line needs, so that the others need not make room for it.
[[gnu::noinline, gnu::cold]] void WriteOtherwise(std::string_view line, ssize_t begun) noexcept {
  auto done = static_cast<std::size_t>(std::max<ssize_t>(begun, 0));
  if (flow != Flow::Free || !WriteRest(line, done)) WriteInTime(line, done);
}

}  // namespace

// By write(2): in the stream's buffer the line would only be copied, and flushed at once.
void Write(std::string_view line) noexcept {
  ssize_t written = 0;
  if (flow.load(std::memory_order_relaxed) == Flow::Free && FlushStream()) [[likely]] {
    written = write(fileno(stdout), line.data(), line.size());
    if (written == std::ssize(line)) [[likely]]
      return;
  }
  WriteOtherwise(line, written);
}

void AwaitRoom() noexcept {
  Patience patience;
  if (Settle(patience)) BeFree();
}

void Drop() noexcept {
  ++dropped;
  isLineOpen = true;
  BeBehind();
}

void ForgetDropped() noexcept {
  dropped = 0;
  isLineOpen = false;
}

}  // namespace Tarvik::Console
