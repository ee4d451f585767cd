// What a card, whose contents are anybody's, cannot make a service do that runs as root.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "DiskUtils/System.h"
#include "FileUtils/Dir.h"
#include "tests/support/CardText.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/FakeCard.h"
#include "tests/support/LogFile.h"
#include "tests/support/OwnedSystem.h"
#include "tests/support/Scoped.h"

namespace {

namespace fs = std::filesystem;
using Machine::Traced;
using Quellon::FileUtils::Idir;
using Quellon::FileUtils::Ifile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char const* kOutside = "/mnt/outside";

mode_t ModeOf(std::string const& path) {
  struct stat status {};
  EXPECT_EQ(fstatat(AT_FDCWD, Machine::Real(path).c_str(), &status, 0), 0) << path;
  return status.st_mode & 07777;
}

// What the tests below do to a folder of the device must never happen to the machine's own.
TEST(Security, OfTheMachineIsAPrivateFolderForTheFoldersOfTheDeviceWithAndWithoutASlash) {
  for (std::string const folder : {"/root", "/mnt", "/sys", "/var/log"}) {
    EXPECT_NE(Machine::Real(folder), folder);
    EXPECT_EQ(Machine::Real(folder + "/"), Machine::Real(folder) / "");
  }
}

class SecurityOfACardOfAnybody : public CatalogueTest {
 protected:
  SecurityOfACardOfAnybody() { Machine::MakeFile(kOutside, std::string(5000, 'o')); }

  static bool OutsideIsUntouched() { return Machine::ReadFile(kOutside) == std::string(5000, 'o'); }
};

TEST_F(SecurityOfACardOfAnybody, NamesNeverReachAShell) {
  std::vector<std::string> const names = {"$(reboot).dat", "`reboot`.dat", ";reboot;.dat",
                                          "-rf.dat",       "a'b\"c.dat",   "a\nreboot\n.dat"};
  for (auto const& name : names) MakeRecording(name, 10);
  Capture::Descriptor const output(1);
  auto const catalogue = NewCatalogue();
  EXPECT_TRUE(catalogue->LoadAndSort());
  catalogue->Log();
  std::string first = names[0];
  Ifile* const file = catalogue->GetList().front();
  EXPECT_TRUE(file->CopyTo(file->path + ".copy"));
  file->PrintStat();
  EXPECT_TRUE(catalogue->RemoveFileByName(first));
  EXPECT_EQ(catalogue->RemoveAllFiles(), names.size() - 1);
  EXPECT_THAT(Traced("system"), IsEmpty());
  EXPECT_THAT(Traced("popen"), IsEmpty());
}

TEST_F(SecurityOfACardOfAnybody, ALinkCountsWithItsOwnSizeAndRoomIsMadeOfItAlone) {
  fs::create_symlink(Machine::Real(kOutside), Where("link.dat"));
  auto const linkSize = fs::read_symlink(Where("link.dat")).string().size();
  totalBytes = 100;
  freeBytes = 1;
  Machine::hooks().unlink = [this](std::string const& path) {
    freeBytes = 1000;
    return Machine::Answer{::unlinkat(AT_FDCWD, Machine::Real(path).c_str(), 0), errno};
  };
  auto const catalogue = NewCatalogue(kDirectory, 500);
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_EQ(catalogue->GetTotalFilesSize(), linkSize);
  EXPECT_TRUE(catalogue->MakeRoom());
  EXPECT_THAT(OnCard(), IsEmpty());
  EXPECT_TRUE(OutsideIsUntouched());
}

// Kept as it is: a link that leads nowhere passes for a file that is missing.
TEST_F(SecurityOfACardOfAnybody, ALinkThatLeadsNowhereIsNotRemoved) {
  fs::create_symlink("nowhere", Where("link.dat"));
  auto const catalogue = NewCatalogue();
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_EQ(catalogue->RemoveAllFiles(), 0U);
  EXPECT_THAT(OnCard(), ElementsAre("link.dat"));
}

// The directory is the application's choice, too. Only looked at: it leads out of the card.
TEST_F(SecurityOfACardOfAnybody, ALinkInThePlaceOfTheRecordingsDirectoryIsFollowed) {
  Machine::MakeFile("/mnt/elsewhere/a.dat", "");
  Machine::RemoveFile("/mnt/sdcard/cr");
  fs::create_directories(Machine::Real("/mnt/sdcard"));
  fs::create_directory_symlink(Machine::Real("/mnt/elsewhere"), Machine::Real("/mnt/sdcard/cr"));
  auto const catalogue = NewCatalogue();
  EXPECT_TRUE(catalogue->LoadAndSort());
  EXPECT_THAT(Names(*catalogue), ElementsAre("a.dat"));
}

// Streams follow links; what is opened or copied is the application's choice.
TEST_F(SecurityOfACardOfAnybody, ACopyIsOneOfWhereALinkLeads) {
  fs::create_symlink(Machine::Real(kOutside), Where("link.dat"));
  std::string path = std::string(kDirectory) + "link.dat";
  Capture::Descriptor const output(1);
  EXPECT_TRUE(Ifile(path, false).CopyTo("/mnt/sdcard/copy"));
  EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/copy"), std::string(5000, 'o'));
  EXPECT_TRUE(OutsideIsUntouched());
}

class SecurityOfAStart : public testing::Test {
 protected:
  SecurityOfAStart() {
    Machine::hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };
    Machine::MakeFile(CounterFile::kPath, "");
    Machine::MakeFile(kOutside, "outside");
  }

  std::string InitDisk() {
    return Capture::Output([this] { system->InitDisk(); });
  }

  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
};

TEST_F(SecurityOfAStart, WhatACardTellsOfItselfNeverReachesAShell) {
  for (char const* name : {"cid", "csd", "serial", "manfid", "oemid", "name"}) {
    FakeCard::SetProperty(std::string("device/") + name, "$(reboot);reboot\n");
  }
  InitDisk();
  EXPECT_THAT(Traced("system"), ElementsAre(CardText::kUmount, CardText::kFsck, CardText::kMount));
  EXPECT_THAT(Traced("popen"), IsEmpty());
}

TEST_F(SecurityOfAStart, CommandsInheritNothing) {
  LogFile::BeginAnew();
  Descriptors::Watch const descriptors;
  Capture::Output([] { Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << "the log is open"; });
  ASSERT_THAT(descriptors.Opened(), testing::SizeIs(1));
  int const log = descriptors.Opened().front();
  int commands = 0;
  Capture::Descriptor const output(1);
  std::vector<int> const own = descriptors.Opened();
  auto const checked = [&, answers = Machine::hooks().system](std::string const& command) {
    ++commands;
    for (int const fd : descriptors.Opened()) {
      bool const isOwn = std::ranges::count(own, fd) > 0 && fd != log;
      EXPECT_TRUE(isOwn || Descriptors::ClosesOnExec(fd)) << command;
    }
    return answers(command);
  };
  Machine::hooks().system = checked;
  system->InitDisk();
  EXPECT_TRUE(system->disk->Fromat(false));
  card.duringCheck = [] { Machine::RemoveFile(FakeCard::kTestFile); };
  system->InitDisk();  // fails, and the machine is rebooted
  EXPECT_EQ(commands, 3 + 1 + 3 + 1);
}

// The standard library's streams have no other way: close recordings before a command is run.
TEST_F(SecurityOfAStart, AStreamThatIsOpenIsInherited) {
  Descriptors::Watch const descriptors;
  std::string path = kOutside;
  Ifile const file(path, true);
  ASSERT_THAT(descriptors.Opened(), testing::SizeIs(1));
  EXPECT_FALSE(Descriptors::ClosesOnExec(descriptors.Opened().front()));
}

TEST_F(SecurityOfAStart, FilesAreMadeForTheirOwnerToWriteAndAllToRead) {
  auto const mask = Scoped::Umask(022);
  Machine::RemoveFile(CounterFile::kPath);
  mode_t testFile = 0;
  card.duringCheck = [&testFile] { testFile = ModeOf(FakeCard::kTestFile); };
  LogFile::BeginAnew();
  Machine::RemoveFile(LogFile::kPath);
  std::string path = kOutside;
  InitDisk();
  Capture::Output([&] {
    EXPECT_TRUE(Ifile(path, false).CopyTo("/mnt/sdcard/copy"));
    EXPECT_TRUE(system->SaveSDCardStatusCounter(1));
    EXPECT_TRUE(Idir("/mnt/sdcard/made").Create());
  });
  EXPECT_EQ(testFile, 0644U);
  for (std::string const made : {LogFile::kPath, CounterFile::kPath, "/mnt/sdcard/copy"}) {
    EXPECT_EQ(ModeOf(made), 0644U) << made;
  }
  EXPECT_EQ(ModeOf("/mnt/sdcard/made"), 0755U);
}

}  // namespace
