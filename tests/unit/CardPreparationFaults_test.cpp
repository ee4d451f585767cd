// Each call of a preparation failing in each of its ways: too many for the other tests' program.
#include <gtest/gtest.h>

#include <string>

#include "DiskUtils/CardPreparation.h"
#include "tests/machine/FaultTable.h"
#include "tests/support/Capture.h"
#include "tests/support/FoundCards.h"
#include "tests/support/NewCardSlot.h"

namespace {

using FaultTable::kNoHarm;
using Preparation = Quellon::DiskUtils::CardPreparation;
using Permission = Preparation::Permission;
using Result = Preparation::Result;

/// A card of FAT that is prepared.
class Preparing {
 public:
  Preparing() { NewCardSlot::Put(FoundCards::Boot(0, 54, "FAT16   ")); }

  void Run() {
    Capture::AllOutput(
        [&] { outcome = Preparation::Describe(Preparation::Prepare(Permission::KeepRecordings)); });
  }
  std::string Outcome() { return outcome + (slot.isMounted ? ", mounted" : ""); }

 private:
  NewCardSlot slot;
  std::string outcome;
};

// A card that cannot be read may hold recordings. One that was partitioned is read, also where an
// ext may have begun, until that is seen; one whose file system is not seen counts as not
// partitioned. What comes after the test does not matter.
TEST(CardPreparationFaults, TellsTheStepAtWhichItEnded) {
  auto const text = [](Result result) { return std::string(Preparation::Describe(result)); };
  FaultTable::Try<Preparing>("done", {{"open *: EINTR", kNoHarm},
                                      {"pread *: EINTR", kNoHarm},
                                      {"pread *: short", kNoHarm},
                                      {"open /dev/mmcblk1 (1): EBUSY", text(Result::InUse)},
                                      {"open /dev/mmcblk1 (1): ENOENT", text(Result::Missing)},
                                      {"open /dev/mmcblk1 (1): ENODEV", text(Result::Missing)},
                                      {"open /dev/mmcblk1 (1): ENXIO", text(Result::Missing)},
                                      {"open /dev/mmcblk1 (1): *", text(Result::Failed)},
                                      {"pread * ([1-3]): *", text(Result::MayHoldRecordings)},
                                      {"access /sys/*/cid *", text(Result::Exchanged)},
                                      {"fopen /sys/*/cid *", text(Result::Exchanged)},
                                      {"read /sys/*/cid *: EINTR", kNoHarm},
                                      {"read /sys/*/cid *: short", kNoHarm},
                                      {"read /sys/*/cid *", text(Result::Exchanged)},
                                      {"system echo *: exit 127", text(Result::CommandMissing)},
                                      {"system mkfs* *: exit 127", text(Result::CommandMissing)},
                                      {"system fsck *: exit 127", text(Result::CommandMissing)},
                                      {"system echo *", text(Result::NotPartitioned)},
                                      {"open /dev/mmcblk1p1 *", kNoHarm},
                                      {"system mkfs.ext4 *", text(Result::NotFormatted)},
                                      {"open /dev/mmcblk1 (2): *", kNoHarm},
                                      {"open /dev/mmcblk1 (3): *", text(Result::NotPartitioned)},
                                      {"pread * ([4-9]): *", kNoHarm},
                                      {"pread * (1[0-8]): *", kNoHarm},
                                      {"pread *", text(Result::NotPartitioned)},
                                      {"mount *", text(Result::NotMounted)},
                                      {"writev *: EINTR", kNoHarm},
                                      {"writev *: short", kNoHarm},
                                      {"writev *", text(Result::NotKept)},
                                      {"system fsck *", text(Result::CheckFailed)},
                                      {"fopen /mnt/*", text(Result::NotKept)},
                                      {"read /mnt/*: EINTR", kNoHarm},
                                      {"read /mnt/*: short", kNoHarm},
                                      {"read /mnt/*", text(Result::NotKept)},
                                      {"umount *", "done, mounted"},
                                      {"ioctl *", kNoHarm},
                                      {"access /sys/*", kNoHarm},
                                      {"unlink *", kNoHarm}});
}

}  // namespace
