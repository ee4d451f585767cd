#include "DiskUtils/CheckUnlessMountable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"

namespace {

using Machine::Answer;
using Machine::hooks;
using testing::ElementsAre;
using testing::IsEmpty;

class CheckUnlessMountable : public testing::Test {
 protected:
  CheckUnlessMountable() {
    Machine::MakeFile("/dev/mmcblk1p1", kExt);
    hooks().mount = [this](auto&&...) {
      return mountError == 0 ? Answer::Success() : Answer::Failure(mountError);
    };
  }
  ~CheckUnlessMountable() override { Machine::Reset(); }

  static bool Checks() {
    Capture::Output([] { Quellon::DiskUtils::CheckUnlessMountable(); });
    return !Machine::Traced("popen fsck").empty() || !Machine::Traced("system fsck").empty();
  }

  inline static std::string const kExt = std::string(1024 + 56, '\0') + "\x53\xEF";
  int mountError = EUCLEAN;
};

TEST_F(CheckUnlessMountable, HasACardCheckedThatTheKernelDoesNotMount) {
  EXPECT_TRUE(Checks());
  EXPECT_THAT(Machine::Traced("umount ").back(), "umount /mnt/sdcard/");
}

TEST_F(CheckUnlessMountable, MountsAsTheCardIsMountedLater) {
  Checks();
  EXPECT_THAT(Machine::Traced("mount /dev/mmcblk1p1"),
              ElementsAre("mount /dev/mmcblk1p1 /mnt/sdcard/ ext4 " +
                          std::to_string(MS_NOEXEC | MS_NOATIME) + " "));
}

TEST_F(CheckUnlessMountable, LeavesACardUnmountedThatCanBeMounted) {
  mountError = 0;
  EXPECT_FALSE(Checks());
  EXPECT_THAT(Machine::Traced("umount"), ElementsAre("umount /mnt/sdcard/"));
}

TEST_F(CheckUnlessMountable, DoesNotCheckACardThatCanBeMountedThoughItsUnmountFails) {
  mountError = 0;
  hooks().umount = [](auto&&) { return Answer::Failure(EIO); };
  EXPECT_FALSE(Checks());
}

TEST_F(CheckUnlessMountable, HasACardCheckedForEachDamageThatKernelsTell) {
  for (int const error : {EBADMSG, EUCLEAN, EINVAL, EIO}) {
    Machine::ForgetTrace();
    mountError = error;
    EXPECT_TRUE(Checks()) << error;
  }
}

TEST_F(CheckUnlessMountable, LeavesACardAloneThatCannotBeMountedForAnotherReason) {
  for (int const error : {EBUSY, EACCES, EROFS, ENOENT, ENOTDIR, EPERM, ENOMEM, ENODEV, ENXIO,
                          ENOMEDIUM, EMFILE, EFBIG}) {
    mountError = error;
    EXPECT_FALSE(Checks()) << error;
    EXPECT_THAT(Machine::Traced("umount"), IsEmpty()) << error;
  }
}

TEST_F(CheckUnlessMountable, LeavesACardAloneThatHoldsSomethingElseNow) {
  for (std::string const& content : {std::string(), std::string(1024 + 57, '\x53'),
                                     std::string(4096, '\0'), kExt.substr(0, kExt.size() - 1)}) {
    Machine::MakeFile("/dev/mmcblk1p1", content);
    EXPECT_FALSE(Checks());
    EXPECT_THAT(Machine::Traced("mount"), IsEmpty());
  }
}

TEST_F(CheckUnlessMountable, IsNotStoppedByAPipeInTheCardsPlace) {
  std::string const place = Machine::Real("/dev/mmcblk1p1");
  std::filesystem::remove(place);
  ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
  EXPECT_FALSE(Checks());
  EXPECT_THAT(Machine::Traced("mount"), IsEmpty());
}

TEST_F(CheckUnlessMountable, DoesNothingWithACardThatCannotBeRead) {
  hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.subject != "/dev/mmcblk1p1" || call.function != "open") return {};
    return ENOMEDIUM;
  };
  EXPECT_FALSE(Checks());
  EXPECT_THAT(Machine::Traced("mount"), IsEmpty());
}

}  // namespace
