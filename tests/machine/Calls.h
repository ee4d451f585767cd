// Helpers of the sources here that define the C library's calls.
#pragma once

#include <cerrno>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"

namespace Machine {

/// While one exists, this thread works for the stand-in itself: see `IsWorking`.
class Work {
 public:
  Work();
  Work(Work const&) = delete;
  Work& operator=(Work const&) = delete;
  ~Work();
};

/// The profile in force.
Profile const& profile();

/// Adds a text to the trace.
void Append(std::string const& call);

/// Adds a call to the trace, with blanks between the words. Not where pauses are slept, as in
/// `PassOn`: benchmarks would measure it.
template <typename... Words>
void Record(Words const&... words) {
  if (profile().sleeps) return;
  Work const work;
  std::ostringstream text;
  std::size_t count = 0;
  ((text << (count++ == 0 ? "" : " ") << words), ...);
  Append(text.str());
}

/// Where a path leads: into the private folder, or, without an allocation, where it says.
class Place {
 public:
  explicit Place(char const* path);
  operator char const*() const { return place; }

 private:
  char const* place;
  std::string redirected;
};

/// Sets `errno` and returns a failing call's result.
template <typename Result = int>
Result Fail(int error, Result result = -1) {
  errno = error;
  return result;
}

inline int Give(Answer answer) {
  return answer.result < 0 ? Fail(answer.error, answer.result) : answer.result;
}

/// The result of a call that would change the machine, and is not made.
inline int Refuse() {
  return Fail(EPERM);
}

/// How the call fails, if the hook `fault` says so.
template <typename Subject, typename... Others>
std::optional<Failure> FailureOf(char const* function, Subject const& subject,
                                 Others const&... /*others*/) {
  if (!hooks().fault) return std::nullopt;
  Work const work;
  std::ostringstream text;
  text << subject;
  return hooks().fault({function, text.str()});
}

/// How a call on a descriptor of the device fails, if the hook `fault` says so.
inline std::optional<Failure> FailureOn(char const* function, int fd) {
  if (!hooks().fault || IsWorking()) return std::nullopt;
  Work const work;
  auto const path = DevicePath(fd);
  return path ? hooks().fault({function, *path}) : std::nullopt;
}

/// The hook's answer, else what `otherwise` returns.
template <typename Called, typename Otherwise, typename... Arguments>
int Answered(Called const& hook, Otherwise otherwise, Arguments const&... arguments) {
  if (hook) {
    Work const work;
    if (auto const answer = hook(arguments...)) return Give(*answer);
  }
  return otherwise();
}

/// The call's result: a fault's, else the hook's answer, else what `otherwise` returns.
template <typename Called, typename Otherwise, typename... Arguments>
int Outcome(char const* function, Called const& hook, Otherwise otherwise,
            Arguments const&... arguments) {
  if (auto const failure = FailureOf(function, arguments...)) {
    return failure->kind == Failure::ExitCode ? failure->value << 8 : Fail(failure->value);
  }
  return Answered(hook, otherwise, arguments...);
}

/// Makes a call, and then reports the failure that a fault asks for: as with close(2), which frees
/// the descriptor even when it fails.
template <typename Result, typename Otherwise>
Result DoAndDeny(char const* function, int fd, Result denied, Otherwise otherwise) {
  auto const failure = FailureOn(function, fd);
  Result const result = otherwise();
  return failure ? Fail(failure->value, denied) : result;
}

}  // namespace Machine
