// Tests of what a process has once: singletons, the buffering of standard output. And of what
// becomes of it in a child.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/UniqueFd.h"

namespace ChildProcess {

/// Does `work` in a copy of this process. What it changes goes with the copy; a failed expectation
/// in it fails the test.
template <typename Work>
void Run(Work work) {
  auto const copy = [&] {
    work();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(copy(), testing::ExitedWithCode(0), "");
}

/// Ends this process before long, should it hang.
inline void EndInTime() {
  constexpr unsigned kLongerThanAnythingTakes = 60;  // seconds
  signal(SIGALRM, SIG_DFL);
  alarm(kLongerThanAnythingTakes);
}

/// Begins `work` in a copy of this process, which ends with what that returns.
template <typename Work>
pid_t Start(Work work) {
  pid_t const child = fork();
  if (child == 0) _exit(work());
  return child;
}

/// Waits for a child, and returns how it ended as wait(2) tells it; -1 where that is not told.
inline int Wait(pid_t child) {
  int status = -1;
  return waitpid(child, &status, 0) == child ? status : -1;
}

struct Outcome {
  std::string output;
  int status = 0;
};

inline std::string ReadAll(Tarvik::UniqueFd const& fd) {
  std::string text;
  std::array<char, 4096> piece;
  for (ssize_t n; (n = read(fd.Get(), piece.data(), piece.size())) > 0;) {
    text.append(piece.data(), static_cast<std::size_t>(n));
  }
  return text;
}

/// Does `work` in a copy of this process whose standard output is a pipe, with the buffering that a
/// pipe has.
template <typename Work>
Outcome ThroughPipe(Work work) {
  std::fflush(nullptr);
  std::array<int, 2> ends;
  EXPECT_EQ(pipe(ends.data()), 0);
  Tarvik::UniqueFd const reader(ends[0]);
  Tarvik::UniqueFd writer(ends[1]);
  pid_t const child = Start([&] {
    dup2(writer.Get(), STDOUT_FILENO);
    static std::array<char, BUFSIZ> buffer;
    std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
    work();
    std::fflush(stdout);
    return testing::Test::HasFailure() ? 1 : 0;
  });
  writer = Tarvik::UniqueFd();
  std::string const output = ReadAll(reader);
  return {output, Wait(child)};
}

}  // namespace ChildProcess
