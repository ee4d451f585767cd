// What the library prints and reads, whatever format and locale the application has chosen for its
// own texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>

#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"
#include "SysUtil/Util.h"
#include "base/internal/OutputLine.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/FakeCard.h"
#include "tests/support/GroupedNumbers.h"
#include "tests/support/OwnedSystem.h"
#include "tests/support/Scoped.h"

namespace {

using Quellon::DiskUtils::Disk;
using Tarvik::OutputLine;

/// While one exists, the application's own format is on std::cout; at its end, it still is.
class ApplicationsFormat {
 public:
  ApplicationsFormat() {
    before.copyfmt(std::cout);
    std::cout << std::hex << std::showbase << std::showpos << std::uppercase << std::boolalpha
              << std::scientific << std::left;
    std::cout.imbue(std::locale());
    std::cout.precision(2);
    std::cout.fill('*');
    std::cout.width(40);
    flags = std::cout.flags();
  }
  ApplicationsFormat(ApplicationsFormat const&) = delete;
  ApplicationsFormat& operator=(ApplicationsFormat const&) = delete;
  ~ApplicationsFormat() {
    EXPECT_EQ(std::cout.flags(), flags);
    EXPECT_EQ(std::cout.precision(), 2);
    EXPECT_EQ(std::cout.fill(), '*');
    EXPECT_EQ(std::cout.width(), 40);
    EXPECT_EQ(std::cout.getloc(), std::locale());
    std::cout.copyfmt(before);
  }

 private:
  GroupedNumbers const grouped;
  std::ios before{nullptr};
  std::ios::fmtflags flags{};
};

/// Something the library does, from a card in the slot on.
struct Job {
  char const* name;
  void (*work)();
};

void StartAGoodCard() {
  OwnedSystem system;
  Disk* const card = system.InitDisk();
  ASSERT_NE(card, nullptr);
  EXPECT_TRUE(card->available);
  card->PrintInfo();
  EXPECT_TRUE(card->Fromat(true));
}

void StartWithoutACard() {
  Machine::RemoveFile("/dev/mmcblk1");
  Machine::MakeFile(CounterFile::kPath, CounterFile::Text(1234567));
  EXPECT_FALSE(OwnedSystem().InitDisk()->available);
}

void KeepTheCounter() {
  Machine::MakeFile(CounterFile::kPath, "");
  OwnedSystem system;
  EXPECT_TRUE(system.SaveSDCardStatusCounter(1234567));
  EXPECT_EQ(system.ReadSDCardStatusCounter(), 1234567);
  EXPECT_TRUE(system.SaveSDCardStatusCounter(0));
}

void ReportAtTheEpoch() {
  Machine::hooks().now = 0;
  StartAGoodCard();
}

void AddAFileWithoutADot() {
  Quellon::FileUtils::FilesManager catalogue(nullptr);
  std::string name = "README";
  EXPECT_FALSE(catalogue.AddFile(name));
}

class ApplicationFormat : public testing::TestWithParam<Job> {
 protected:
  static std::string Print() {
    Machine::Reset();
    FakeCard const card;
    Machine::hooks().now = 1614877509;
    return Capture::Output(GetParam().work);
  }
};

TEST_P(ApplicationFormat, TheLinesAreTheSame) {
  std::string const plain = Print();
  EXPECT_THAT(plain, testing::HasSubstr("\n"));
  ApplicationsFormat const format;
  EXPECT_EQ(Print(), plain);
}

INSTANTIATE_TEST_SUITE_P(Jobs, ApplicationFormat,
                         testing::Values(Job{"AGoodStart", StartAGoodCard},
                                         Job{"AStartWithoutACard", StartWithoutACard},
                                         Job{"TheCounter", KeepTheCounter},
                                         Job{"AReportAtTheEpoch", ReportAtTheEpoch},
                                         Job{"ANameWithoutADot", AddAFileWithoutADot},
                                         Job{"OpenFiles", Quellon::SysUtil::DisplayOpenFiles}),
                         [](auto const& instance) { return instance.param.name; });

TEST(ApplicationFormatOfALine, ALineIsWrittenWithItsEndAtOnce) {
  Capture::Descriptor output(1);
  OutputLine() << "size " << 31116288 << " of " << 1.5 << 'x' << true;
  std::puts("next");
  OutputLine();
  EXPECT_EQ(output.Text(), "size 31116288 of 1.5x1\nnext\n\n");
}

TEST(ApplicationFormatOfALine, ALineGoesWhereTheApplicationLeadsTheStream) {
  std::stringbuf led;
  {
    auto const output = Scoped::Output(&led, std::ios::goodbit);
    OutputLine() << "led " << 10;
  }
  EXPECT_EQ(led.str(), "led 10\n");
}

TEST(ApplicationFormatOfALine, AStreamThatIsSwitchedOffStaysSilent) {
  std::cout.setstate(std::ios::failbit);
  EXPECT_EQ(Capture::Output([] { OutputLine() << "nobody asked"; }), "");
  EXPECT_TRUE(std::cout.rdstate() == std::ios::failbit);
  std::cout.clear();
}

TEST(ApplicationFormatOfALine, ALineThatCannotBeWrittenDoesNoHarm) {
  struct Broken : std::streambuf {
    int overflow(int) override { throw std::runtime_error("broken"); }
  } broken;
  {
    auto const output = Scoped::Output(&broken, std::ios::badbit);
    EXPECT_NO_THROW(OutputLine() << "lost" << 1);
  }
  EXPECT_EQ(Capture::Output([] { OutputLine() << "next"; }), "next\n");
}

/// Changes every byte between file and program.
class Garbling : public std::codecvt<char, char, std::mbstate_t> {
 private:
  static result Garble(char const* from, char const* fromEnd, char const*& fromNext, char* to,
                       char* toEnd, char*& toNext) {
    while (from != fromEnd && to != toEnd) *to++ = static_cast<char>(*from++ ^ 1);
    fromNext = from;
    toNext = to;
    return from == fromEnd ? ok : partial;
  }
  result do_in(std::mbstate_t&, char const* from, char const* fromEnd, char const*& fromNext,
               char* to, char* toEnd, char*& toNext) const override {
    return Garble(from, fromEnd, fromNext, to, toEnd, toNext);
  }
  result do_out(std::mbstate_t&, char const* from, char const* fromEnd, char const*& fromNext,
                char* to, char* toEnd, char*& toNext) const override {
    return Garble(from, fromEnd, fromNext, to, toEnd, toNext);
  }
  int do_encoding() const noexcept override { return 1; }
  bool do_always_noconv() const noexcept override { return false; }
};

/// While it lasts, streams on files garble what they hold, unless they have a locale of their
/// own.
[[nodiscard]] Scoped::AtEnd GarbledFiles() {
  return Scoped::GlobalLocale(std::locale(std::locale(), new Garbling));
}

TEST(ApplicationFormatOfFiles, AreReadAsTheyAre) {
  FakeCard card;
  Machine::MakeFile(CounterFile::kPath, "{\n\"sdcard-status-conter\":\n1234567}");
  Machine::MakeFile("/proc/12/cmdline", "/usr/bin/recorder");
  OwnedSystem system;
  auto const garbled = GarbledFiles();
  EXPECT_EQ(system.ReadSDCardStatusCounter(), 1234567);
  EXPECT_EQ(Disk::readSysFSProperty("/sys/block/mmcblk1/device/cid"), FakeCard::kCid);
  EXPECT_EQ(Disk::getSDCardLifetimeWrites("mmcblk1p1"), 734003U);
  EXPECT_EQ(Quellon::SysUtil::GetProcIdByName("recorder"), 12);
}

TEST(ApplicationFormatOfFiles, AreWrittenAsTheyShallBe) {
  FakeCard card;
  Machine::MakeFile(CounterFile::kPath, "");
  OwnedSystem system;
  Capture::Descriptor const output(1);
  std::string testFile;
  {
    auto const garbled = GarbledFiles();
    EXPECT_TRUE(system.SaveSDCardStatusCounter(1234567));
    Machine::hooks().sync = [&testFile] {
      auto const plain = Scoped::GlobalLocale(std::locale::classic());
      testFile = Machine::ReadFile(FakeCard::kTestFile);
    };
    EXPECT_TRUE(system.InitDisk()->available);
  }
  EXPECT_EQ(Machine::ReadFile(CounterFile::kPath), CounterFile::Text(1234567));
  EXPECT_EQ(testFile, "velmor");
}

}  // namespace
