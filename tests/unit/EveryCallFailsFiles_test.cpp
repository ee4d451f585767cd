// The catalogue, the copying of files, clock, watchdog and log, with each of their calls failing in
// turn.
#include <gtest/gtest.h>
#include <linux/rtc.h>
#include <linux/watchdog.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileUtils/FilesManager.h"
#include "RTC/Rtc.h"
#include "Watchdog/Watchdog.h"
#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/DirectoryOrder.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/LogFile.h"

namespace {

using FaultTable::kNoHarm;
using FaultTable::Row;
using Machine::Answer;
using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;

constexpr char const* kDirectory = CatalogueTest::kDirectory;

/// What stands between the end of the header of the log's lines and the ends of these.
std::string LogText() {
  std::string text;
  for (auto const& line : LogFile::SplitLines(LogFile::Text())) {
    text += "|" + line.substr(LogFile::kHeaderLength);
  }
  return text;
}

/// The pattern of a request to a device that fails.
std::string Request(unsigned long number) {
  return "ioctl " + std::to_string(number) + " *";
}

/// The logger on a new, empty file that it has not opened, and silent on the console.
void BeginLog() {
  LogFile::BeginAnew();
  LogFile::Enable(true, false);
}

void EndLog() {
  Tarvik::Ilog::Logger::GetInstance()->Close();
}

/// Four recordings of 1000 bytes on a card of 10,000, a minute apart.
class Recordings {
 public:
  static constexpr std::size_t kSize = 1000;

  Recordings() {
    std::time_t time = 0;
    for (char const* name : {"a.dat", "b.dat", "c.dat", "d.dat"}) {
      CatalogueTest::MakeRecording(name, kSize, time += 60);
    }
    Machine::hooks().statvfs = [](std::string const&, struct statvfs* space) {
      space->f_frsize = 1;
      space->f_blocks = 10000;
      space->f_bfree = static_cast<fsblkcnt_t>(10000 - 1000 * OnCard().size());
      return Answer::Success();
    };
    LogFile::Enable(false, false);
    card.available = true;
    catalogue = std::make_unique<FilesManager>(&card, kDirectory, 7000, 1.0F);
  }
  ~Recordings() {
    catalogue.reset();
    Machine::DeleteLiveFiles();
  }

  static std::string OnCard() {
    std::string names;
    for (auto const& name : CatalogueTest::OnCard()) names += name.substr(0, 1);
    return names;
  }

  std::string Outcome() {
    std::string names;
    for (Ifile const* file : catalogue->GetList()) names += file->name.substr(0, 1);
    std::string const error = ErrorOf(*catalogue);
    return (result          ? "done"
            : error.empty() ? "failed"
                            : error) +
           ", catalogue " + names + ", card " + OnCard() + ", total " +
           std::to_string(catalogue->GetTotalFilesSize());
  }

 protected:
  bool result = false;
  Disk card = FakeCard::MakeDisk();
  std::unique_ptr<FilesManager> catalogue;
};

class Loading : public Recordings {
 public:
  void Run() { result = catalogue->LoadAndSort(); }
};

/// A directory that cannot be read any further counts as read to its end.
std::vector<Row> TruncatedDirectories() {
  Recordings const recordings;
  std::vector<Row> rows;
  std::string names;
  int number = 0;
  for (auto const& entry : DirectoryOrder(kDirectory)) {
    rows.push_back({"readdir * (" + std::to_string(++number) + "): *",
                    "done, catalogue " + names + ", card abcd, total " +
                        std::to_string(Recordings::kSize * names.size())});
    if (!entry.starts_with('.')) names += entry.substr(0, 1);
    std::ranges::sort(names);
  }
  return rows;
}

TEST(EveryCallFailsFiles, WhileTheCatalogueIsLoaded) {
  std::vector<Row> table = TruncatedDirectories();
  table.push_back(
      {"opendir *", "Could not open directory in Load, catalogue , card abcd, total 0"});
  for (std::string const name : {"a", "b", "c", "d"}) {
    std::string others = "abcd";
    std::erase(others, name[0]);
    table.push_back(
        {"lstat */" + name + ".dat *", "done, catalogue " + others + ", card abcd, total 3000"});
  }
  FaultTable::Try<Loading>("done, catalogue abcd, card abcd, total 4000", table);
}

class Adding : public Recordings {
 public:
  void Run() {
    std::string name = "a.dat";
    result = catalogue->AddFile(name);
  }
};

TEST(EveryCallFailsFiles, WhileARecordingIsAdded) {
  FaultTable::Try<Adding>("done, catalogue a, card abcd, total 1000",
                          {{"*", "File not found in AddFile, catalogue , card abcd, total 0"}});
}

class MakingRoom : public Recordings {
 public:
  MakingRoom() { EXPECT_TRUE(catalogue->LoadAndSort()); }
  void Run() { result = catalogue->MakeRoom(); }
};

TEST(EveryCallFailsFiles, WhileRoomIsMade) {
  // A recording that cannot be removed leaves the catalogue; its bytes stay counted.
  std::string const unknown = "Get space stat error in MakeRoom, ";
  FaultTable::Try<MakingRoom>(
      "done, catalogue cd, card cd, total 2000",
      {{"statvfs * (1): *", unknown + "catalogue abcd, card abcd, total 4000"},
       {"statvfs * (2): *", unknown + "catalogue cd, card cd, total 2000"},
       {"access */a.dat *", "done, catalogue d, card ad, total 2000"},
       {"access */b.dat *", "done, catalogue d, card bd, total 2000"},
       {"unlink *", kNoHarm}});
}

class RemovingByName : public Recordings {
 public:
  RemovingByName() { EXPECT_TRUE(catalogue->LoadAndSort()); }
  void Run() {
    std::string name = "b.dat";
    result = catalogue->RemoveFileByName(name);
  }
};

TEST(EveryCallFailsFiles, WhileARecordingIsRemovedByName) {
  FaultTable::Try<RemovingByName>(
      "done, catalogue acd, card acd, total 3000",
      {{"access *", "failed, catalogue abcd, card abcd, total 4000"}, {"unlink *", kNoHarm}});
}

class Copying {
 public:
  Copying() {
    BeginLog();
    Machine::MakeFile("/mnt/sdcard/from", content);
    std::string path = "/mnt/sdcard/from";
    file.emplace(path, false);
  }

  void Run() {
    result = file->CopyTo("/mnt/sdcard/to");
    file->Close();
    EndLog();
  }

  std::string Outcome() {
    EXPECT_EQ(Machine::ReadFile("/mnt/sdcard/from"), content);
    std::string const copy = Machine::ReadFile("/mnt/sdcard/to");
    EXPECT_EQ(copy, content.substr(0, copy.size()));
    std::string const amount = copy.empty() ? "nothing" : copy == content ? "all" : "a part";
    return (result ? "done, " : "failed, ") + amount + LogText();
  }

 private:
  std::string const content = std::string(20000, 'y') + "end";
  std::optional<Ifile> file;
  bool result = false;
};

// Only a destination that cannot be opened is told of. A line that cannot be logged harms nothing.
TEST(EveryCallFailsFiles, WhileAFileIsCopied) {
  std::string const line = "|Copy file /mnt/sdcard/from to /mnt/sdcard/to";
  FaultTable::Try<Copying>(
      "done, all" + line,
      {{"[rw]* *: EINTR", kNoHarm},
       {"[rw]* *: short", kNoHarm},
       {"close *", kNoHarm},
       {"fclose *", kNoHarm},
       {"fopen /mnt/sdcard/to *", "failed, nothing|[ERROR]Ifile: destination file not open"},
       {"* /var/log/quellon.log *", "done, all"},
       {"read * (4): *", kNoHarm},  // the one that finds the end
       {"[rw]* (1): *", "done, nothing" + line},
       {"[rw]* *", "done, a part" + line}});
}

/// A recording that is brought to the card while its stream holds the half of it.
class Syncing {
 public:
  Syncing() {
    Machine::MakeFile(kPath, "");
    std::string path = kPath;
    file.emplace(path, true);
    file->Write(text, sizeof text);
  }

  void Run() { outcome = file->Sync() ? "on the card" : "not on the card"; }

  std::string Outcome() {
    std::string const content = Machine::ReadFile(kPath);
    return outcome + (content == std::string(text, sizeof text) ? "" : ", incomplete");
  }

 private:
  static constexpr char const* kPath = "/mnt/sdcard/cr/a.dat";
  char text[5] = {'1', '2', '3', '4', '5'};
  std::optional<Ifile> file;
  std::string outcome;
};

TEST(EveryCallFailsFiles, WhileARecordingIsBroughtToTheCard) {
  FaultTable::Try<Syncing>("on the card", {{"*: EINTR", kNoHarm},
                                           {"write *: short", kNoHarm},
                                           {"close *", kNoHarm},
                                           {"write *", "not on the card, incomplete"},
                                           {"*", "not on the card"}});
}

class Clock {
 public:
  Clock() {
    Machine::MakeFile("/dev/rtc0", "");
    Machine::hooks().ioctl = [](unsigned long, void*) { return Answer::Success(); };
    Machine::hooks().setClock = [](long) { return Answer::Success(); };
  }

  void Run() {
    Quellon::RTC::Rtc clock("/dev/rtc0");
    long seconds = 1614877509;
    outcome = clock.Load() ? "loaded, " : "not loaded, ";
    outcome += clock.Set(seconds) ? "set" : "not set";
  }
  std::string Outcome() { return outcome; }

 private:
  std::string outcome;
};

TEST(EveryCallFailsFiles, WhileTheClockIsReadAndSet) {
  FaultTable::Try<Clock>("loaded, set", {{"open * (1): *", "not loaded, set"},
                                         {Request(RTC_RD_TIME), "not loaded, set"},
                                         {"open * (2): *", "loaded, not set"},
                                         {Request(RTC_SET_TIME), "loaded, not set"},
                                         {"clock_settime *", "loaded, not set"}});
}

class Kicking {
 public:
  Kicking() {
    BeginLog();
    Machine::MakeFile("/dev/watchdog", "");
    Machine::hooks().ioctl = [](unsigned long request, void* argument) {
      if (request == WDIOC_GETTIMEOUT) *static_cast<int*>(argument) = 60;
      return Answer::Success();
    };
  }

  void Run() {
    {
      Quellon::Watchdog watchdog(60);
      for (int kick = 1; kick <= 2; ++kick) outcome += watchdog.Reset() ? "kicked " : "not kicked ";
    }
    EndLog();
  }
  std::string Outcome() { return outcome + LogText(); }

 private:
  std::string outcome;
};

// A watchdog that could not be armed is kicked all the same. A failed kick is given up at once,
// also when a signal interrupted it: the next one is due soon enough.
TEST(EveryCallFailsFiles, WhileTheWatchdogIsArmedAndKicked) {
  std::string const armed = "|[WTD] Watchdog timeout have been set to 60 seconds";
  std::string const unknown = "|[WTD] Watchdog timeout have been set to 0 seconds";
  std::string const kicked = "|[WTD] Watchdog have been reset";
  std::string const closed = "|[WTD] Watchdog could not be open";
  FaultTable::Try<Kicking>(
      "kicked kicked " + armed + kicked + kicked,
      {{"close *", kNoHarm},
       {"write *.log *: EINTR", kNoHarm},
       {"write *.log *: short", kNoHarm},
       {"open /dev/watchdog (1): *", "kicked kicked " + kicked + kicked},
       {Request(WDIOC_SETTIMEOUT), "kicked kicked " + kicked + kicked},
       {Request(WDIOC_GETTIMEOUT), "kicked kicked " + unknown + kicked + kicked},
       {"open *watchdog (2): *", "not kicked kicked " + armed + closed + kicked},
       {"write *watchdog (1): *", "not kicked kicked " + armed + kicked},
       {"open *watchdog (3): *", "kicked not kicked " + armed + kicked + closed},
       {"write *watchdog (2): *", "kicked not kicked " + armed + kicked},
       {"write *.log (2): *", "kicked kicked " + armed},
       {"write *.log (3): *", "kicked kicked " + armed + kicked},
       {"* *.log *", "kicked kicked "}});
}

/// Three lines, a second apart, the second of which fills the file to where another is begun.
class Logging {
 public:
  Logging() {
    BeginLog();
    Machine::MakeFile(LogFile::kPath, std::string(kLongestLine - 60, 'x') + "\n");
  }

  void Run() {
    long second = 0;
    for (char const* text : {"one", "two", "three"}) {
      Machine::hooks().now = ++second;
      Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << text;
    }
    EndLog();
  }

  std::string Outcome() {
    return Summary(LogFile::kOlderPath) + " then " + Summary(LogFile::kPath);
  }

 private:
  static constexpr std::size_t kLongestLine = Tarvik::Ilog::FileLogPolicy::kLongestLine;

  // The text of each line; what filled the file is a dot.
  static std::string Summary(std::string const& path) {
    constexpr std::streamoff kEnd = 120;
    std::ifstream file(Machine::Real(path), std::ios::ate);
    file.seekg(-std::min<std::streamoff>(kEnd, file.tellg()), std::ios::end);
    std::string summary;
    for (std::string line; std::getline(file, line);) {
      summary += line.starts_with('x') ? "." : "|" + line.substr(LogFile::kHeaderLength);
    }
    return summary;
  }
};

// A log that cannot be written is given up; one that cannot be set aside is emptied. Whoever does
// not get its turn goes on up to the limit; whoever cannot tell where the file is opens it again.
TEST(EveryCallFailsFiles, WhileLinesAreLogged) {
  FaultTable::Try<Logging>(".|one|two then |three",
                           {{"close *", kNoHarm},
                            {"write *: EINTR", kNoHarm},
                            {"write *: short", kNoHarm},
                            {"read *: short", kNoHarm},
                            {"lstat *", kNoHarm},
                            {"fstat * (6): *", " then .|one|two"},
                            {"fstat * (3): *", kNoHarm},
                            {"fstat * (5): *", kNoHarm},
                            {"fstat * (2): *", " then ."},
                            {"fstat * (4): *", kNoHarm},
                            {"open /var/log/ (2): *", " then .|one|two|three"},
                            {"open /var/log/ *", kNoHarm},
                            {"rename *", " then |three"},
                            {"write * (2): *", " then .|one"},
                            {"* (1): *", " then ."},
                            {"*", ".|one|two then "}});
}

}  // namespace
