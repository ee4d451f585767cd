// What the tests of one card share.
#pragma once

#include <string>

#include "tests/card/CardFixture.h"
#include "tests/support/Refusal.h"

namespace CardTests {

class DiskTest : public CardTest {
 protected:
  Quellon::DiskUtils::Disk MakeDiskOfInsertedCard() {
    card.Insert();
    return MakeDisk();
  }
  static Quellon::DiskUtils::Disk::DeviceStatus& Status() {
    return Quellon::DiskUtils::Disk::deviceStatusList[kMountPoint];
  }
};

/// The message of the exception that a scan ends with; empty when the card passed.
inline std::string ScanFailure(Quellon::DiskUtils::Disk& disk) {
  return Refusal([&disk] { disk.ScanDisk(); });
}

}  // namespace CardTests
