// The stand-in for the machine itself: what it keeps from the real one.
#include "tests/machine/Machine.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "base/UniqueFd.h"
#include "tests/machine/Failures.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

/// The `errno` of a call that was refused.
template <typename Result>
int ErrnoOf(Result result, Result refusal) {
  EXPECT_EQ(result, refusal);
  return errno;
}

TEST(Machine, ReachesNothingOfTheRealOneUnlessItIsToldTo) {
  EXPECT_EQ(ErrnoOf(mount("a", "/nowhere", "ext4", 0, nullptr), -1), EPERM);
  EXPECT_EQ(ErrnoOf(umount("/nowhere"), -1), EPERM);
  EXPECT_EQ(ErrnoOf(umount2("/nowhere", MNT_DETACH), -1), EPERM);
  EXPECT_EQ(ErrnoOf(reboot(RB_AUTOBOOT), -1), EPERM);
  EXPECT_EQ(ErrnoOf(system("true"), -1), EPERM);
  EXPECT_EQ(ErrnoOf(popen("true", "r"), static_cast<FILE*>(nullptr)), EPERM);
  timespec const time{1, 0};
  EXPECT_EQ(ErrnoOf(clock_settime(CLOCK_REALTIME, &time), -1), EPERM);
  fs::path const before = fs::current_path();
  EXPECT_EQ(chdir("/"), 0);
  EXPECT_EQ(fs::current_path(), before);
  sync();
  EXPECT_THAT(Machine::Trace(),
              ElementsAre("mount a /nowhere ext4 0 ", "umount /nowhere", "umount2 /nowhere 2",
                          "reboot " + std::to_string(RB_AUTOBOOT), "system true", "popen true r",
                          "clock 1", "chdir /", "sync"));
}

TEST(Machine, IsRestartedByNobodyWhateverReachesIt) {
  for (auto const* const profile : {&Machine::PrivateRoot(), &Machine::PassOn()}) {
    Machine::Reset(*profile);
    EXPECT_EQ(ErrnoOf(reboot(RB_AUTOBOOT), -1), EPERM);
    EXPECT_EQ(system("exit 3; reboot"), 0) << "a shell was started";
    EXPECT_EQ(system("exit 3"), 3 << 8);
  }
}

TEST(Machine, KeepsThePathsOfTheDeviceInAFolder) {
  for (char const* const path : {"/mnt", "/mnt/", "/mnt/sdcard", "/dev/mmcblk1p1", "/root/a"}) {
    EXPECT_NE(Machine::Real(path), path);
  }
  for (char const* const path : {"/", "/mnt2", "/etc", "/dev/null", "mnt/", "/proc/self"}) {
    EXPECT_EQ(Machine::Real(path), path);
  }
  EXPECT_THROW(Machine::MakeFile("/home/other", ""), std::invalid_argument);
  EXPECT_THROW(Machine::ReadFile("/home/other"), std::invalid_argument);
  Machine::MakeFile("/proc/1/cmdline", "init");
  EXPECT_NE(Machine::Real("/proc/self"), "/proc/self");
  std::ofstream("/proc/1/cmdline") << "other";
  EXPECT_EQ(Machine::ReadFile("/proc/1/cmdline"), "other");
}

TEST(Machine, KnowsTheDevicesDescriptors) {
  Machine::MakeFile("/root/a", "");
  Tarvik::UniqueFd const file(open("/root/a", O_RDONLY | O_CLOEXEC));
  Tarvik::UniqueFd const other(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(Machine::DevicePath(file.Get()), "/root/a");
  EXPECT_EQ(Machine::DevicePath(other.Get()), std::nullopt);
}

/// Reads four bytes in the ways that a service does.
std::string Read() {
  Tarvik::UniqueFd const file(open("/root/a", O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return "not opened";
  std::string text(4, '-');
  return read(file.Get(), text.data(), 4) < 0 ? "not read" : text;
}

TEST(Machine, FailsEachCallInEachOfItsWays) {
  Machine::MakeFile("/root/a", "four");
  std::vector<std::string> failures;
  Machine::ForEachFailure([&](Machine::Point const& point) {
    Machine::FailingCalls const failing({point});
    std::string const text = Read();
    failures.push_back(failing.Text() + " -> " + text);
    return failing.Result();
  });
  EXPECT_THAT(failures, testing::Contains("open /root/a (1): EROFS -> not opened"));
  EXPECT_THAT(failures, testing::Contains("read /root/a (1): EIO -> not read"));
  EXPECT_THAT(failures, testing::Contains("read /root/a (1): short -> f---"));
  EXPECT_THAT(failures, testing::Contains("close /root/a (1): EIO -> four"));
  EXPECT_EQ(failures.back(), " -> four");
}

TEST(Machine, ForgetsHooksTraceAndFilesForTheNextTest) {
  Machine::hooks().now = 1;
  Machine::MakeFile("/root/a", "");
  sync();
  Machine::Reset();
  EXPECT_FALSE(Machine::hooks().now);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  EXPECT_FALSE(fs::exists(Machine::Real("/root/a")));
}

}  // namespace
