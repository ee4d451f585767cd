// How long a proof takes by itself: on a card in memory, which keeps nobody waiting.
#include "DiskUtils/CapacityProof.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <iostream>

#include "tests/card/CardFixture.h"

namespace {

using namespace std::chrono_literals;
using Proof = Quellon::DiskUtils::CapacityProof;

TEST(CapacityProof, OfAGibibyteTakesLessThanAMinute) {
  constexpr std::uint64_t kGibibyte = 1 << 30;
  CardTests::Card card(kGibibyte + kGibibyte / 8);
  card.Insert();
  CardTests::RunQuietly("mount -o noatime,data=writeback /dev/mmcblk1p1 /mnt/sdcard");
  auto const start = std::chrono::steady_clock::now();
  auto const report = Proof("/mnt/sdcard/").ProveAll();
  auto const taken = std::chrono::steady_clock::now() - start;
  CardTests::RunQuietly("umount /mnt/sdcard");
  EXPECT_EQ(report.result, Proof::Result::Proved) << Proof::Describe(report.result);
  EXPECT_GE(report.provedBytes, kGibibyte);
  EXPECT_LT(taken, 60s);
  std::cout << std::chrono::duration<double>(taken).count() << " s, written at "
            << (report.writtenPerSecond >> 20) << " and read at " << (report.readPerSecond >> 20)
            << " MiB/s" << std::endl;
}

}  // namespace
