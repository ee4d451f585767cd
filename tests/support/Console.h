// Standard output as a pipe that is read when a test says so, and what is waited for meanwhile.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "tests/machine/Machine.h"

namespace Console {

/// The two ends of a pipe, close-on-exec.
struct Ends {
  explicit Ends(int flags = 0) {
    std::array<int, 2> fds;
    EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC | flags), 0);
    reader = Tarvik::UniqueFd(fds[0]);
    writer = Tarvik::UniqueFd(fds[1]);
  }

  Tarvik::UniqueFd reader;
  Tarvik::UniqueFd writer;
};

inline void SetNonBlocking(int fd, bool isSet = true) {
  int const flags = fcntl(fd, F_GETFL);
  EXPECT_EQ(fcntl(fd, F_SETFL, isSet ? flags | O_NONBLOCK : flags & ~O_NONBLOCK), 0);
}

inline bool IsNonBlocking(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

/// What can be read now.
inline std::string ReadNow(int fd) {
  std::string text;
  std::array<char, 4096> piece;
  pollfd input{fd, POLLIN, {}};
  timespec const now{};
  while (ppoll(&input, 1, &now, nullptr) == 1 && (input.revents & POLLIN) != 0) {
    ssize_t const length = read(fd, piece.data(), piece.size());
    if (length <= 0) break;
    text.append(piece.data(), static_cast<std::size_t>(length));
  }
  return text;
}

/// Fills what a descriptor leads to.
inline void Fill(int fd) {
  bool const wasNonBlocking = IsNonBlocking(fd);
  SetNonBlocking(fd);
  std::string const filling(4096, 'x');
  for (std::size_t size = filling.size(); size > 0; size /= 2) {
    while (write(fd, filling.data(), size) > 0) {
    }
  }
  SetNonBlocking(fd, wasNonBlocking);
}

/// Something else as standard output or error while one exists. What a test expects meanwhile is
/// told nobody if it fails: compare later.
class Placed {
 public:
  explicit Placed(int fd, int place = STDOUT_FILENO) : number(place) {
    Flush();
    saved = Tarvik::UniqueFd(fcntl(number, F_DUPFD_CLOEXEC, 3));
    dup2(fd, number);
  }
  Placed(Placed const&) = delete;
  Placed& operator=(Placed const&) = delete;
  ~Placed() {
    Flush();
    dup2(saved.Get(), number);
  }

 private:
  static void Flush() {
    std::cout.flush();
    std::fflush(nullptr);
  }

  int number;
  Tarvik::UniqueFd saved;
};

/// A pipe of one page as standard output.
class Pipe {
 public:
  explicit Pipe(int flags = 0) : ends(flags) {
    fcntl(ends.writer.Get(), F_SETPIPE_SZ, 4096);
    placed.emplace(ends.writer.Get());
  }

  void Fill() const { Console::Fill(ends.writer.Get()); }
  std::string Read() const { return ReadNow(ends.reader.Get()); }
  /// Reads all, and tells what is not filling.
  std::string ReadPrinted() const {
    std::string text = Read();
    return text.substr(std::min(text.find_first_not_of('x'), text.size()));
  }

  Ends ends;

 private:
  std::optional<Placed> placed;
};

/// Nobody waits while one exists: what would be waited for is noted, and the clock goes on by it.
class Waiting {
 public:
  Waiting() {
    Machine::hooks().monotonic = timespec{1000, 0};
    Machine::hooks().poll = [this](pollfd* asked, nfds_t count, int milliseconds) {
      return Poll(asked, count, milliseconds);
    };
  }
  Waiting(Waiting const&) = delete;
  Waiting& operator=(Waiting const&) = delete;
  ~Waiting() {
    Machine::hooks().poll = nullptr;
    Machine::hooks().monotonic.reset();
  }

  /// The limits of what was asked since this was asked last, in milliseconds.
  std::vector<int> Asked() { return std::exchange(limits, {}); }

  void Pass(std::chrono::milliseconds time) {
    auto& now = *Machine::hooks().monotonic;
    auto const next = std::chrono::nanoseconds(now.tv_nsec) + time;
    auto const seconds = std::chrono::floor<std::chrono::seconds>(next);
    now.tv_sec += static_cast<time_t>(seconds.count());
    now.tv_nsec = static_cast<long>((next - seconds).count());
  }

  std::function<void()> during = [] {};  ///< what happens while something is waited for
  std::function<std::optional<Machine::Answer>(int milliseconds)> answer;

 private:
  std::optional<Machine::Answer> Poll(pollfd* asked, nfds_t count, int milliseconds) {
    limits.push_back(milliseconds);
    if (answer) {
      if (auto const given = answer(milliseconds)) return given;
    }
    if (milliseconds > 0) during();
    timespec const now{};
    int const ready = ppoll(asked, count, &now, nullptr);
    if (ready == 0) Pass(std::chrono::milliseconds(milliseconds));
    return Machine::Answer{ready, 0};
  }

  std::vector<int> limits;
};

}  // namespace Console
