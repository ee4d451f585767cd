#include "tests/machine/Failures.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <utility>

#include "tests/support/Environment.h"

namespace Machine {

namespace {

std::vector<Failure> With(Failure other, std::vector<Failure> failures) {
  failures.push_back(other);
  return failures;
}

/// What the manual pages list, and what the drivers of card, watchdog and clock give besides.
std::vector<Failure> const& FailuresOf(std::string const& function) {
  using Failures = std::vector<Failure>;
  static Failures const opening = {
      EACCES, EBUSY,  EDQUOT,  EEXIST,     EFBIG,     EINTR,  EINVAL, EIO,   EISDIR,
      ELOOP,  EMFILE, ENFILE,  ENODEV,     ENOENT,    ENOMEM, ENOSPC, ENXIO, ENAMETOOLONG,
      EPERM,  EROFS,  ENOTDIR, EOPNOTSUPP, EOVERFLOW, EAGAIN, ETXTBSY};
  static Failures const describing = {EACCES,       EBADF,  EFAULT, EIO,     ELOOP,
                                      ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW};
  static Failures const closing = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
  static Failures const writing =
      With({Failure::Short, 0}, {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL,
                                 EIO, ENOSPC, EPERM, EPIPE});
  static Failures const unmounting = {EAGAIN,       EBUSY,  EFAULT, EINVAL,
                                      ENAMETOOLONG, ENOENT, ENOMEM, EPERM};
  static std::map<std::string, Failures> const failures = {
      {"access",
       {EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS,
        ETXTBSY}},
      {"stat", describing},
      {"lstat", describing},
      {"fstat", describing},
      {"statvfs", With(EINTR, With(ENOSYS, describing))},
      {"open", opening},
      {"fopen", opening},
      {"opendir", {EACCES, EBADF, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR}},
      {"readdir", {EBADF, EIO}},
      {"read", With({Failure::Short, 0}, {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR})},
      {"pread", With({Failure::Short, 0}, {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR,
                                           ENODEV, ENOMEM, ENXIO, ESPIPE})},
      {"write", writing},
      {"writev", writing},
      {"fsync", {EBADF, EDQUOT, EINTR, EINVAL, EIO, ENOSPC, EROFS}},
      {"fallocate",
       {EBADF, EFBIG, EINTR, EINVAL, EIO, ENODEV, ENOSPC, ENOSYS, EOPNOTSUPP, EPERM, ESPIPE,
        ETXTBSY}},
      {"close", closing},
      {"fclose", closing},
      {"readlink", {EACCES, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
      {"realpath", {EACCES, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
      {"unlink",
       {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,
        EROFS}},
      {"rename",
       {EACCES, EBUSY, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, EISDIR, ELOOP, EMLINK, ENAMETOOLONG,
        ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENOTEMPTY, EPERM, EROFS, EXDEV}},
      {"mkdir",
       {EACCES, EDQUOT, EEXIST, EFAULT, EINVAL, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM,
        ENOSPC, ENOTDIR, EPERM, EROFS}},
      {"mount",
       {EACCES, EBUSY, EFAULT, EINVAL, EIO, ELOOP, EMFILE, ENAMETOOLONG, ENODEV, ENOENT, ENOMEM,
        ENOTBLK, ENOTDIR, ENXIO, EPERM, EROFS}},
      {"umount", unmounting},
      {"umount2", unmounting},
      {"chdir", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
      {"popen", {EAGAIN, EMFILE, ENFILE, ENOMEM}},
      {"reboot", {EFAULT, EINVAL, EPERM}},
      {"ioctl", {EBADF, EBUSY, EFAULT, EINTR, EINVAL, EIO, ENODEV, ENOTTY, EOPNOTSUPP}},
      {"clock_settime", {EACCES, EFAULT, EINVAL, ENODEV, ENOTSUP, EPERM}},
      {"nanosleep", {EINTR}},
      {"system", With({Failure::ExitCode, 1},
                      With({Failure::ExitCode, 127}, {EAGAIN, ECHILD, ENOMEM, ENOSYS}))}};
  return failures.at(function);
}

std::string Text(Failure const& failure) {
  if (failure.kind == Failure::Short) return "short";
  return failure.kind == Failure::Error ? strerrorname_np(failure.value)
                                        : "exit " + std::to_string(failure.value);
}

/// Whether a test made the call: it knows where the device really lies.
bool IsTestsOwn(Call const& call) {
  static std::string const folder = Real("/mnt/").parent_path().parent_path();
  return call.subject.starts_with(folder);
}

/// All failures of the calls that follow the one of that number.
std::vector<Point> FailuresAfter(int number, Ways const& ways) {
  std::vector<Point> points;
  for (auto call = static_cast<std::size_t>(number); call < ways.size(); ++call) {
    for (std::size_t way = 0; way < ways[call]; ++way) {
      points.push_back({static_cast<int>(call) + 1, way});
    }
  }
  return points;
}

/// All there are. What may fail second is what a run asks for after the first.
std::vector<std::array<Point, 2>> PairsOf(
    std::function<Ways(std::vector<Point> const&)> const& run) {
  std::vector<std::array<Point, 2>> pairs;
  for (Point const& first : FailuresAfter(0, run({}))) {
    for (Point const& second : FailuresAfter(first.number, run({first}))) {
      pairs.push_back({first, second});
    }
  }
  return pairs;
}

}  // namespace

FailingCalls::FailingCalls(std::vector<Point> failing) : points(std::move(failing)) {
  hooks().fault = [this](Call const& call) { return Next(call); };
}

std::optional<Failure> FailingCalls::Next(Call const& call) {
  if (IsTestsOwn(call)) return std::nullopt;
  auto const& failures = FailuresOf(call.function);
  ways.push_back(failures.size());
  std::string const name = call.function + (call.subject.empty() ? "" : " ") + call.subject;
  int const number = ++calls[name];
  if (failed == points.size() || std::ssize(ways) < points[failed].number) return std::nullopt;
  Point const& point = points[failed++];
  Failure const failure = failures.at(point.way);
  text += (text.empty() ? "" : ", then ") + name;
  text += " (" + std::to_string(number) + "): " + Machine::Text(failure);
  moreWays = point.way + 1 < failures.size();
  return failure;
}

void ForPairsOfFailures(std::function<Ways(std::vector<Point> const&)> const& run,
                        std::size_t usual) {
  std::uint32_t const seed = Environment::Number("QUELLON_SEED", std::random_device()());
  std::size_t const wanted =
      Environment::Number("QUELLON_PAIRS", static_cast<std::uint32_t>(usual));
  std::cout << "QUELLON_SEED=" << seed << " QUELLON_PAIRS=" << wanted << std::endl;
  auto const pairs = PairsOf(run);
  std::vector<std::array<Point, 2>> chosen;
  std::ranges::sample(pairs, std::back_inserter(chosen), static_cast<std::ptrdiff_t>(wanted),
                      std::mt19937(seed));
  for (auto const& [first, second] : chosen) {
    if (testing::Test::HasFailure()) return;
    run({first, second});
  }
  testing::Test::RecordProperty("pairs_tried", std::to_string(chosen.size()));
  std::cout << "[ FAILURES ] " << chosen.size() << " of " << pairs.size() << " pairs" << std::endl;
  EXPECT_FALSE(chosen.empty());
}

}  // namespace Machine
