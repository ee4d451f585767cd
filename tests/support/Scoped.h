// What a test changes of its process for a while: each object puts back what it found.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <locale>
#include <optional>
#include <string>
#include <utility>

namespace Scoped {

/// Does something at its end.
class AtEnd {
 public:
  explicit AtEnd(std::function<void()> work) : restore(std::move(work)) {}
  AtEnd(AtEnd const&) = delete;
  AtEnd& operator=(AtEnd const&) = delete;
  ~AtEnd() { restore(); }

 private:
  std::function<void()> restore;
};

[[nodiscard]] inline AtEnd Umask(mode_t mask) {
  return AtEnd([before = umask(mask)] { umask(before); });
}

/// The time zone of the process; nothing is the machine's own.
inline void SetTimeZone(std::optional<std::string> const& zone) {
  zone ? setenv("TZ", zone->c_str(), 1) : unsetenv("TZ");
  tzset();
}

[[nodiscard]] inline AtEnd TimeZone(std::string const& zone) {
  char const* const value = std::getenv("TZ");
  auto const before = value == nullptr ? std::nullopt : std::optional<std::string>(value);
  SetTimeZone(zone);
  return AtEnd([before] { SetTimeZone(before); });
}

[[nodiscard]] inline AtEnd SignalAction(int number, struct sigaction const& action) {
  struct sigaction before {};
  sigaction(number, &action, &before);
  return AtEnd([number, before] { sigaction(number, &before, nullptr); });
}

[[nodiscard]] inline AtEnd GlobalLocale(std::locale const& locale) {
  return AtEnd([before = std::locale::global(locale)] { std::locale::global(before); });
}

/// Where std::cout leads, and what it throws for.
[[nodiscard]] inline AtEnd Output(std::streambuf* buffer, std::ios::iostate exceptions) {
  auto* const before = std::cout.rdbuf(buffer);
  std::cout.exceptions(exceptions);
  return AtEnd([before] {
    std::cout.exceptions(std::ios::goodbit);
    std::cout.rdbuf(before);
  });
}

/// A standard descriptor, which may be closed or be another one in between.
[[nodiscard]] inline AtEnd Descriptor(int number) {
  constexpr int kBeyondTheStandardOnes = 3;
  int const kept = fcntl(number, F_DUPFD_CLOEXEC, kBeyondTheStandardOnes);
  return AtEnd([number, kept] {
    dup2(kept, number);
    close(kept);
  });
}

}  // namespace Scoped
