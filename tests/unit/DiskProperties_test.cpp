#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "DiskUtils/Disk.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"
#include "tests/support/GroupedNumbers.h"

namespace {

using Machine::Answer;
using Machine::hooks;
using Machine::MakeFile;
using Quellon::DiskUtils::Disk;
using Quellon::DiskUtils::SDCardInfo;
using Quellon::DiskUtils::SDCardInfoData;
using testing::IsEmpty;

constexpr char const* kProperty = "/sys/block/mmcblk1/size";

std::string Missing(std::string const& path) {
  return "ERR: [" + path + "] does not exist !\n";
}

/// The property's text and what reading it prints.
std::pair<std::string, std::string> Read(std::string const& path) {
  std::string text;
  std::string const output = Capture::Output([&] { text = Disk::readSysFSProperty(path); });
  return {text, output};
}

struct FirstWord {
  char const* name;
  char const* content;
  char const* word;
};

class DiskPropertiesContent : public testing::TestWithParam<FirstWord> {};

TEST_P(DiskPropertiesContent, IsTheFirstWordOfItsFile) {
  MakeFile(kProperty, GetParam().content);
  Descriptors::Watch const descriptors;
  EXPECT_THAT(Read(kProperty), testing::Pair(GetParam().word, ""));
  EXPECT_THAT(descriptors.Opened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Contents, DiskPropertiesContent,
                         testing::Values(FirstWord{"WithALineEnd", "0\n", "0"},
                                         FirstWord{"WithoutALineEnd", "SD32G", "SD32G"},
                                         FirstWord{"SeveralWords", "one two\nthree\n", "one"},
                                         FirstWord{"AfterBlanks", " \t\n 7\n", "7"},
                                         FirstWord{"OnlyBlanks", " \n", ""},
                                         FirstWord{"Nothing", "", ""}),
                         [](auto const& instance) { return instance.param.name; });

TEST(DiskProperties, AreEmptyAndReportedWhenTheFileIsMissing) {
  EXPECT_THAT(Read(kProperty), testing::Pair("", Missing(kProperty)));
}

TEST(DiskProperties, AreReportedMissingWhenTheFileIsNotReadable) {
  MakeFile(kProperty, "31116288\n");
  hooks().access = [](std::string const&, int mode) {
    return mode == R_OK ? Answer::Failure(EACCES) : Answer::Success();
  };
  EXPECT_THAT(Read(kProperty), testing::Pair("", Missing(kProperty)));
}

TEST(DiskProperties, AreEmptyWhenTheFileVanishesBeforeItIsOpened) {
  hooks().access = [](auto&&...) { return Answer::Success(); };
  EXPECT_THAT(Read(kProperty), testing::Pair("", ""));
}

TEST(DiskPropertiesNumbers, AreTheBaseTenNumberThatATextBeginsWith) {
  EXPECT_EQ(Disk::StringToULong(""), 0U);
  EXPECT_EQ(Disk::StringToULong("12abc"), 12U);
  EXPECT_EQ(Disk::StringToULong("abc"), 0U);
  EXPECT_EQ(Disk::StringToULong(" \n\t42"), 42U);
  EXPECT_EQ(Disk::StringToULong("+7"), 7U);
  EXPECT_EQ(Disk::StringToULong("0x10"), 0U);
  EXPECT_EQ(Disk::StringToULong("010"), 10U);
  EXPECT_EQ(Disk::StringToULong("31116288"), 31116288U);
}

TEST(DiskPropertiesNumbers, AreWrittenWithoutTheApplicationsGroupsOfDigits) {
  GroupedNumbers const locale;
  EXPECT_EQ(Disk::ULongToString(31116288U), "31116288");
}

TEST(DiskPropertiesNumbers, AreSigned64BitOnesAsTheirUnsignedPattern) {
  using Limits = std::numeric_limits<long long>;
  constexpr unsigned long long kLargest = Limits::max();
  EXPECT_EQ(Disk::StringToULong("-1"), std::numeric_limits<unsigned long long>::max());
  EXPECT_EQ(Disk::StringToULong("9223372036854775807"), kLargest);
  EXPECT_EQ(Disk::StringToULong("18446744073709551615"), kLargest);
  EXPECT_EQ(Disk::StringToULong("-9223372036854775808"), kLargest + 1);
}

TEST(DiskPropertiesNumbers, AreWrittenInDecimal) {
  EXPECT_EQ(Disk::ULongToString(0), "0");
  EXPECT_EQ(Disk::ULongToString(15931539456), "15931539456");
  EXPECT_EQ(Disk::ULongToString(std::numeric_limits<unsigned long long>::max()),
            "18446744073709551615");
}

TEST(DiskPropertiesLifetimeWrites, AreReadFromThePartitionsFileSystem) {
  MakeFile("/sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes", "4294967296\n");
  EXPECT_EQ(Disk::getSDCardLifetimeWrites("mmcblk1p1"), 4294967296U);
}

TEST(DiskPropertiesLifetimeWrites, AreZeroAndReportedWhenUnknown) {
  std::string const output =
      Capture::Output([] { EXPECT_EQ(Disk::getSDCardLifetimeWrites("mmcblk1p1"), 0U); });
  EXPECT_EQ(output, Missing("/sys/fs/ext4/mmcblk1p1/lifetime_write_kbytes"));
}

TEST(DiskPropertiesReadOnlyFlag, IsAnyNumberButZero) {
  for (auto const& [text, flag] : std::vector<std::pair<std::string, bool>>{
           {"0\n", false}, {"1\n", true}, {"2\n", true}, {"-1\n", true}, {"yes\n", false}}) {
    MakeFile("/sys/class/block/mmcblk1/ro", text);
    EXPECT_EQ(Disk::getSDCardReadOnlyFlag("mmcblk1"), flag) << text;
  }
}

TEST(DiskPropertiesReadOnlyFlag, IsFalseAndReportedWhenUnknown) {
  std::string const output =
      Capture::Output([] { EXPECT_FALSE(Disk::getSDCardReadOnlyFlag("mmcblk1")); });
  EXPECT_EQ(output, Missing("/sys/class/block/mmcblk1/ro"));
}

TEST(DiskPropertiesTotalSize, IsTheSectorCountTimes512) {
  MakeFile("/sys/class/block/mmcblk1/size", "31116288\n");
  EXPECT_EQ(Disk::getSDCardTotalSize("mmcblk1"), 15931539456U);
}

TEST(DiskPropertiesTotalSize, IsZeroAndReportedWhenUnknown) {
  std::string const output =
      Capture::Output([] { EXPECT_EQ(Disk::getSDCardTotalSize("mmcblk1"), 0U); });
  EXPECT_EQ(output, Missing("/sys/class/block/mmcblk1/size"));
}

TEST(DiskPropertiesIdentity, HoldsEveryPropertyAsTheKernelGivesIt) {
  FakeCard const card;
  std::string const output = Capture::Output([] {
    SDCardInfoData const data = SDCardInfo("mmcblk1").data;
    EXPECT_EQ(data.cid, FakeCard::kCid);
    EXPECT_EQ(data.csd, "400e00325b590000ed5f7f800a400001");
    EXPECT_EQ(data.serial, "0xe0e7f40f");
    EXPECT_EQ(data.oemid, "0x5048");
    EXPECT_EQ(data.manfid, "0x000027");
    EXPECT_EQ(data.name, "SD32G");
    EXPECT_EQ(data.ro, "0");
    EXPECT_EQ(data.size, 15931539456U);
  });
  EXPECT_EQ(output, "");
}

TEST(DiskPropertiesIdentity, IsReadInAFixedOrderAndLeftEmptyWhereItIsMissing) {
  std::string const output = Capture::Output([] {
    SDCardInfoData const data = SDCardInfo("mmcblk7").data;
    EXPECT_EQ(data.cid + data.csd + data.serial + data.oemid + data.manfid + data.name + data.ro,
              "");
    EXPECT_EQ(data.size, 0U);
  });
  std::string expected;
  for (char const* const name : {"device/cid", "device/csd", "device/serial", "device/manfid",
                                 "device/oemid", "device/name", "ro", "size"}) {
    expected += Missing(std::string("/sys/block/mmcblk7/") + name);
  }
  EXPECT_EQ(output, expected);
}

TEST(DiskPropertiesIdentity, IsPrintedOneItemALine) {
  FakeCard const card;
  EXPECT_EQ(Capture::Output([] { FakeCard::MakeDisk().PrintInfo(); }),
            " Disk info:\n"
            " CID 275048534433324760e0e7f40f012a01\n"
            " CSD 400e00325b590000ed5f7f800a400001\n"
            " Manfield 0x000027\n"
            " Name SD32G\n"
            " OemId 0x5048\n"
            " RO 0\n"
            " Serial 0xe0e7f40f\n"
            " Size 15931539456\n");
}

TEST(DiskPropertiesIdentity, IsPrintedEmptyWithoutACard) {
  EXPECT_EQ(Capture::Output([] { FakeCard::MakeDisk().PrintInfo(); }),
            " Disk info:\n CID \n CSD \n Manfield \n Name \n OemId \n RO \n Serial \n Size 0\n");
}

TEST(DiskPropertiesSlowReadOnlyTest, IsAlwaysFalseAndTouchesNothing) {
  EXPECT_EQ(Capture::Output([] { EXPECT_FALSE(Disk::testSDCardReadOnlySlow("mmcblk1")); }), "");
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

}  // namespace
