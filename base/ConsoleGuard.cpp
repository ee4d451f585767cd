#include "base/ConsoleGuard.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ios>
#include <iostream>
#include <optional>
#include <streambuf>

#include "base/UniqueFd.h"
#include "base/internal/Console.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"

namespace Tarvik {

namespace {

using Result = ConsoleGuard::Result;

int FlagsOf(int fd) noexcept {
  return fcntl(fd, F_GETFL);
}

bool IsNonBlocking(int fd) noexcept {
  int const flags = FlagsOf(fd);
  return flags >= 0 && (flags & O_NONBLOCK) != 0;
}

bool IsSameFile(int one, int other) noexcept {
  struct stat first {};
  struct stat second {};
  return fstat(one, &first) == 0 && fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

bool TakesMore(int fd) noexcept {
  pollfd output{fd, POLLOUT, {}};
  return poll(&output, 1, 0) == 1;
}

/// A descriptor that does not block while one exists.
class NonBlocking {
 public:
  explicit NonBlocking(int descriptor) noexcept : number(descriptor), result(Begin()) {}
  NonBlocking(NonBlocking const&) = delete;
  NonBlocking& operator=(NonBlocking const&) = delete;
  ~NonBlocking() {
    if (owner != getpid()) return;  // what a child changed would be the parent's, too
    if (result == Result::Shared) {
      fcntl(original.Get(), F_SETFL, FlagsOf(original.Get()) & ~O_NONBLOCK);
    } else if (result == Result::Done && IsSameFile(number, original.Get()) && TakesMore(number)) {
      static_cast<void>(Place(original.Get()));
    }
  }

  [[nodiscard]] Result Outcome() const noexcept { return result; }

 private:
  Result Begin() noexcept {
    struct stat status {};
    if (fstat(number, &status) != 0) return Result::Closed;
    bool const isSocket = S_ISSOCK(status.st_mode);
    if (!isSocket && !S_ISFIFO(status.st_mode) && isatty(number) == 0) return Result::NotNeeded;
    if (IsNonBlocking(number)) return Result::NotNeeded;
    original = UniqueFd(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!original.IsOpen()) return Result::Failed;
    if (!isSocket && OpenAnew()) return Result::Done;
    bool const isSet = fcntl(number, F_SETFL, FlagsOf(number) | O_NONBLOCK) == 0;
    return isSet ? Result::Shared : Result::Failed;
  }

  bool OpenAnew() noexcept {
    constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY;
    char const* const path = number == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2";
    UniqueFd const opened(RestartWhileInterrupted([=] { return OpenFile(path, kFlags); }));
    return opened.IsOpen() && Place(opened.Get());
  }

  [[nodiscard]] bool Place(int fd) const noexcept {
    return RestartWhileInterrupted([&] { return dup2(fd, number); }) >= 0;
  }

  int const number;
  pid_t const owner = getpid();
  UniqueFd original;
  Result const result;
};

/// Stands before the buffer of a stream while one exists. A text that the buffer does not take,
/// since the descriptor is full, counts as printed: a stream that failed prints nothing any more.
class Forgiving : public std::streambuf {
 public:
  Forgiving(std::ostream& printed, bool isCounted)
      : stream(printed), next(printed.rdbuf()), isOutput(isCounted) {
    Exchange(this);
  }
  Forgiving(Forgiving const&) = delete;
  Forgiving& operator=(Forgiving const&) = delete;
  ~Forgiving() override {
    if (stream.rdbuf() == this) Exchange(next);
  }

 protected:
  std::streamsize xsputn(char const* text, std::streamsize count) override {
    if (std::memchr(text, '\n', static_cast<std::size_t>(count)) != nullptr) AwaitRoom();
    std::streamsize const done = next->sputn(text, count);
    return done == count || IsForgiven() ? count : done;
  }

  int_type overflow(int_type character) override {
    char const printed = traits_type::to_char_type(character);
    return xsputn(&printed, 1) == 1 ? character : traits_type::eof();
  }

  int sync() override {
    AwaitRoom();
    return next->pubsync() == 0 || IsForgiven() ? 0 : -1;
  }

  void imbue(std::locale const& locale) override { next->pubimbue(locale); }

 private:
  // Where a text may go out: the C library's stream may be one that is flushed with each line.
  void AwaitRoom() const noexcept {
    if (isOutput) Console::AwaitRoom();
  }

  bool IsForgiven() const noexcept {
    if (errno != EAGAIN) return false;
    if (isOutput) Console::Drop();
    return true;
  }

  // Another buffer makes a stream good; one that the application has silenced stays so.
  void Exchange(std::streambuf* buffer) {
    auto const state = stream.rdstate();
    stream.rdbuf(buffer);
    if ((state & stream.exceptions()) == 0) stream.setstate(state);
  }

  std::ostream& stream;
  std::streambuf* const next;
  bool const isOutput;
};

}  // namespace

struct ConsoleGuard::Parts {
  Parts() {
    Forgive(out, std::cout, STDOUT_FILENO);
    Forgive(errors, std::cerr, STDERR_FILENO);
    Forgive(log, std::clog, STDERR_FILENO);
  }
  Parts(Parts const&) = delete;
  Parts& operator=(Parts const&) = delete;
  /// What the C library still holds must not wait for the console when the process ends.
  ~Parts() { static_cast<void>(std::fflush(stdout)); }

  static void Forgive(std::optional<Forgiving>& buffer, std::ostream& stream, int descriptor) {
    if (!IsNonBlocking(descriptor) || stream.rdbuf() == nullptr) return;
    buffer.emplace(stream, descriptor == STDOUT_FILENO);
  }

  NonBlocking output{STDOUT_FILENO};
  NonBlocking error{STDERR_FILENO};
  std::optional<Forgiving> out;
  std::optional<Forgiving> errors;
  std::optional<Forgiving> log;
};

ConsoleGuard::ConsoleGuard() : parts(std::make_unique<Parts>()) {}

ConsoleGuard::~ConsoleGuard() = default;

Result ConsoleGuard::GetOutput() const noexcept {
  return parts->output.Outcome();
}

Result ConsoleGuard::GetErrors() const noexcept {
  return parts->error.Outcome();
}

char const* ConsoleGuard::Describe(Result result) noexcept {
  switch (result) {
    case Result::Done:
      return "the console does not block";
    case Result::Shared:
      return "the console does not block, nor for others who have it";
    case Result::NotNeeded:
      return "the console never blocks";
    case Result::Closed:
      return "there is no console";
    case Result::Failed:
      break;
  }
  return "the console blocks";
}

}  // namespace Tarvik
