// What the tests of one card share.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "DiskUtils/Disk.h"
#include "base/IException.h"
#include "tests/card/CardFixture.h"

namespace CardTests {

class DiskTest : public CardTest {
 protected:
  static Quellon::DiskUtils::Disk MakeDisk() { return {kMountPoint, kPartition, kDevice}; }
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
  try {
    disk.ScanDisk();
    return "";
  } catch (Tarvik::IException const& e) {
    EXPECT_EQ(e.code, 0);
    return e.what();
  }
}

}  // namespace CardTests
