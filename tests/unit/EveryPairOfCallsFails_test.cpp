// The start-up of the card and the reclamation of space, with pairs of their calls failing. What
// must hold whatever fails is said once for each; EveryCallFails says what comes of single calls. A
// leak is for the address sanitizer's build to find.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DiskUtils/System.h"
#include "tests/machine/Failures.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/CounterFile.h"
#include "tests/support/Descriptors.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/FakeCard.h"
#include "tests/support/LogFile.h"
#include "tests/support/OwnedSystem.h"

namespace {

using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;

// A long run asks for more by QUELLON_PAIRS.
constexpr std::size_t kUsualPairs = 500;

/// The names on the card with what they hold.
using Contents = std::map<std::string, std::string>;

Contents OnCard() {
  Contents contents;
  for (auto const& name : CatalogueTest::OnCard()) {
    contents[name] = Machine::ReadFile(CatalogueTest::kDirectory + name);
  }
  return contents;
}

constexpr std::size_t kSize = 800;

/// Recordings a minute apart, each of bytes that no other has.
void MakeRecordings(std::vector<std::string> const& names) {
  std::time_t time = 0;
  for (auto const& name : names) {
    Machine::MakeFile(CatalogueTest::kDirectory + name, std::string(kSize, name.front()));
    CatalogueTest::SetTime(name, time += 60);
  }
}

/// `Scenario` prepares the device when it is made; its `Run` does the work, and its `Check` says
/// what must hold after those failures.
template <typename Scenario>
void TryPairs() {
  auto const run = [](std::vector<Machine::Point> const& points) {
    Machine::Reset();
    Scenario scenario;
    Descriptors::Watch const descriptors;
    std::string failures;
    Machine::Ways ways;
    {
      Machine::FailingCalls const failing(points);
      scenario.Run();
      failures = failing.Text();
      ways = failing.WaysOfCalls();
    }
    SCOPED_TRACE(failures);
    EXPECT_THAT(descriptors.Opened(), IsEmpty());
    scenario.Check(failures);
    return ways;
  };
  Machine::ForPairsOfFailures(run, kUsualPairs);
}

/// A start of the machine with recordings on the card, after so many reboots for a failing one.
template <int count, bool isThere>
class Start {
 public:
  Start() {
    MakeRecordings({"a.dat", "b.log", "c.dat"});
    recordings = OnCard();
    Machine::MakeFile(CounterFile::kPath, CounterFile::Text(count));
    if (!isThere) Machine::RemoveFile("/dev/mmcblk1");
    Machine::hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };
  }

  void Run() {
    Capture::Descriptor const complaints(2);
    output = Capture::Output([this] { result = system->InitDisk(); });
  }

  void Check(std::string const& failures) {
    EXPECT_EQ(OnCard(), recordings);
    EXPECT_THAT(Machine::Traced("unlink "), testing::Each("unlink /mnt/sdcard/check.tmp"));
    bool const rebooted = !Machine::Traced("system reboot").empty();
    EXPECT_EQ(Machine::Traced("system reboot").size(), rebooted ? 1U : 0U);
    EXPECT_EQ(Machine::Traced("reboot ").size(), rebooted ? 1U : 0U);
    EXPECT_EQ(result == nullptr, rebooted);
    rebooted ? CheckReboot(failures) : CheckReport(failures);
  }

 private:
  // One that cannot be counted comes of a file that cannot be opened.
  void CheckReboot(std::string const& failures) {
    EXPECT_LT(count, 3);
    EXPECT_EQ(system->GetHealthReport(), "{}");
    EXPECT_TRUE(system->diskFault);
    if (failures.find("fopen /root/system.dat") == std::string::npos) {
      EXPECT_EQ(Machine::ReadFile(CounterFile::kPath), CounterFile::Text(count + 1));
    }
  }

  void CheckReport(std::string const& failures) {
    bool const inService = result->available;
    EXPECT_EQ(result, system->disk);
    EXPECT_EQ(system->diskFault, !inService);
    EXPECT_EQ(system->GetHealthReport().find(R"("zr":0)") != std::string::npos, inService);
    EXPECT_EQ(output.find("Exception disk (0): ") == std::string::npos, inService);
    EXPECT_EQ(output.find("NOT PRESENT") == std::string::npos, inService);
    if (inService) {
      EXPECT_TRUE(isThere);
      EXPECT_TRUE(card.mounted);
      EXPECT_EQ(Machine::ReadFile(CounterFile::kPath), CounterFile::Text(count));
      return;
    }
    // Before the limit, only a count that could not be read or saved keeps it from a reboot.
    if (count < 3) {
      EXPECT_THAT(failures, HasSubstr("/root/system.dat"));
    }
    EXPECT_THAT(output, HasSubstr(", passed limit"));
  }

  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
  Contents recordings;
  Disk* result = nullptr;
  std::string output;
};

TEST(EveryPairOfCallsFails, WhileAGoodCardIsStarted) {
  TryPairs<Start<2, true>>();
}

TEST(EveryPairOfCallsFails, WhileAGoodCardIsStartedAndTheRebootsAreUsedUp) {
  TryPairs<Start<3, true>>();
}

TEST(EveryPairOfCallsFails, WhileAMissingCardIsStarted) {
  TryPairs<Start<1, false>>();
}

/// Recordings on a card of 10,000 bytes of which more than 5500 shall be free: they are catalogued,
/// one more is recorded, and room is made. Three have to go for that, so that two times two do.
class Reclamation {
 public:
  Reclamation() {
    MakeRecordings({"a.log", "b.dat", "c.gps", "d.dat", "e.dat", "f.dat", "g.dat"});
    complete = OnCard();
    Machine::hooks().statvfs = [this](std::string const&, struct statvfs* space) {
      space->f_frsize = 1;
      space->f_blocks = kCardBytes;
      space->f_bfree = static_cast<fsblkcnt_t>(kCardBytes - UsedBytes());
      if (usedBefore == 0) usedBefore = UsedBytes();
      return Machine::Answer::Success();
    };
    LogFile::Enable(false, false);
    card.available = true;
  }
  ~Reclamation() { Machine::DeleteLiveFiles(); }

  void Run() {
    FilesManager catalogue(&card, CatalogueTest::kDirectory, kMinimumFree, 1.0F);
    if (!catalogue.LoadAndSort()) return;
    Record(catalogue);
    catalogued = CatalogueTest::Names(catalogue);
    hasRoom = catalogue.MakeRoom();
    error = ErrorOf(catalogue);
    kept = CatalogueTest::Names(catalogue);
  }

  void Check(std::string const& failures) {
    CheckObjects(failures);
    CheckDeleted(failures);
    CheckCatalogue(failures);
    EXPECT_TRUE(hasRoom || !failures.empty());
    EXPECT_TRUE(!hasRoom || error.empty());
    EXPECT_TRUE(!hasRoom || kCardBytes - UsedBytes() > kMinimumFree);
  }

 private:
  static constexpr std::size_t kCardBytes = 10000;
  static constexpr std::size_t kMinimumFree = 5500;
  static constexpr std::size_t kAtATime = 2;

  static std::size_t UsedBytes() {
    std::size_t used = 0;
    for (auto const& [name, content] : OnCard()) used += content.size();
    return used;
  }

  static bool MayBeDeleted(std::string const& name) { return name.ends_with(".dat"); }

  void Record(FilesManager& catalogue) {
    std::string name = "h.dat";
    std::string path = CatalogueTest::kDirectory + name;
    std::string content(kSize, 'h');
    Ifile file(path, false);
    file.Open(false);
    file.Write(content.data(), static_cast<unsigned int>(content.size()));
    if (!file.Sync()) return;
    complete[name] = content;
    catalogue.AddFile(name);
  }

  // What could not be removed or found is left to nobody, one object a failure.
  static void CheckObjects(std::string const& failures) {
    bool const two = failures.find(", then ") != std::string::npos;
    EXPECT_LE(Machine::LiveFiles().size(), failures.empty() ? 0U : two ? 2U : 1U);
  }

  // The oldest first, only as many as needed, and never anything that was not asked about.
  void CheckDeleted(std::string const& failures) {
    auto const now = OnCard();
    std::vector<std::string> deleted;
    for (auto const& [name, content] : complete) {
      auto const found = now.find(name);
      if (found == now.end()) {
        deleted.push_back(name);
      } else {
        EXPECT_EQ(found->second, content) << name;
      }
    }
    EXPECT_THAT(deleted, IsSubsetOf(catalogued));
    EXPECT_LE(deleted.size(), MostToDelete());
    EXPECT_TRUE(deleted.size() == 2 * kAtATime || !failures.empty());
    for (auto const& name : catalogued) {  // names are in the order of age
      if (deleted.empty() || name > deleted.back()) break;
      bool const isGone = !now.contains(name);
      EXPECT_TRUE(isGone ? MayBeDeleted(name) : !MayBeDeleted(name) || Mentions(failures, name))
          << name;
    }
  }

  [[nodiscard]] std::size_t MostToDelete() const {
    if (usedBefore == 0) return 0;
    std::size_t needed = 0;
    while (kCardBytes - usedBefore + needed * kSize <= kMinimumFree) ++needed;
    return (needed + kAtATime - 1) / kAtATime * kAtATime;
  }

  void CheckCatalogue(std::string const& failures) {
    auto const now = CatalogueTest::OnCard();
    EXPECT_THAT(kept, IsSubsetOf(now));
    EXPECT_TRUE(std::ranges::is_sorted(kept));
    bool const isWhole = failures.find("dir ") == std::string::npos;  // opendir, readdir
    for (auto const& [name, content] : complete) {
      if (!isWhole || std::ranges::find(now, name) == now.end()) continue;
      EXPECT_TRUE(std::ranges::find(kept, name) != kept.end() || Mentions(failures, name)) << name;
    }
  }

  static bool Mentions(std::string const& failures, std::string const& name) {
    return failures.find("/" + name) != std::string::npos;
  }

  Disk card = FakeCard::MakeDisk();  // there is no such device
  Contents complete;
  std::size_t usedBefore = 0;
  std::vector<std::string> catalogued;
  std::vector<std::string> kept;
  bool hasRoom = false;
  std::string error;
};

TEST(EveryPairOfCallsFails, WhileRoomIsMade) {
  TryPairs<Reclamation>();
}

}  // namespace
