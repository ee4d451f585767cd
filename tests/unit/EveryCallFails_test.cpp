// The start-up of the card and the count of reboots, with each of their calls failing in turn.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <sstream>
#include <string>

#include "DiskUtils/System.h"
#include "tests/machine/FaultTable.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/FakeCard.h"
#include "tests/support/OwnedSystem.h"

namespace {

using FaultTable::kNoHarm;
using Quellon::DiskUtils::Disk;

/// The value of a key of the health report, as it is written.
std::string Health(OwnedSystem const& system, std::string const& key) {
  std::string const report = system.GetHealthReport();
  std::size_t const name = report.find("\"" + key + "\":");
  if (name == std::string::npos) return "unknown";
  std::size_t const value = name + key.size() + 3;
  return report.substr(value, report.find_first_of(",}", value) - value);
}

/// The messages of the exceptions that were told of.
std::string Exceptions(std::string const& output) {
  std::string messages;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    for (std::string const beginning : {"Disk exception ", "Exception disk (0): "}) {
      if (line.starts_with(beginning)) messages += line.substr(beginning.size()) + "; ";
    }
  }
  return messages;
}

/// A good card, after three reboots for one that failed: the limit, so that each failure ends in a
/// report.
class GoodCard {
 public:
  GoodCard() {
    Machine::MakeFile(CounterFile::kPath, CounterFile::Text(3));
    Machine::hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };
  }

  void Run() {
    output = Capture::Output([this] { result = system->InitDisk(); });
  }

  std::string Outcome() {
    EXPECT_EQ(result, system->disk);
    EXPECT_EQ(system->diskFault, !result->available);
    EXPECT_TRUE(Machine::Traced("reboot").empty());
    std::string outcome = Exceptions(output) + (result->available ? "in service" : "refused") +
                          ", state " + Health(*system, "zr") + ", check " + Health(*system, "zf");
    if (Health(*system, "zi") != "\"\"") outcome += ", cid";
    if (Health(*system, "zs") != "0") outcome += ", size";
    if (Health(*system, "zl") != "0") outcome += ", writes";
    return outcome;
  }

 private:
  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
  Disk* result = nullptr;
  std::string output;
};

TEST(EveryCallFails, WhileAGoodCardIsStarted) {
  std::string const refused = "The device is not available; refused, state 3, check 0";
  std::string const known = ", cid, size";
  std::string const served = "in service, state 0, check ";
  FaultTable::Try<GoodCard>(
      served + "0, cid, size, writes",
      {{"read *: EINTR", kNoHarm},
       {"read *: short", kNoHarm},
       // The constructor.
       {"access /dev/mmcblk1 (1): *", "Disk not found; " + refused},
       {"access /dev/mmcblk1p1 (1): *", "Disk not found; " + refused + known},
       {"stat /mnt/sdcard/ (1): *", "Stat error (1); " + refused + known},
       {"stat /mnt/sdcard/.. (1): *", "Stat error (2); " + refused + known},
       {"statvfs *", "Get space stat error; " + refused + known},
       // The scan. A test file that could not be made is missed after the check; one that could not
       // be written is there all the same.
       {"fopen *check.tmp *", "disk malfunction; refused, state 1, check 0" + known},
       {"system fsck *: exit 1", served + "1, cid, size, writes"},
       {"system fsck *: exit 127", served + "127, cid, size, writes"},
       {"system fsck *", served + "255, cid, size, writes"},
       {"access /dev/mmcblk1 (2): *", "Disk not present; refused, state 3, check 0" + known},
       {"access /dev/mmcblk1p1 (2): *", "Disk not present; refused, state 3, check 0" + known},
       {"stat /mnt/sdcard/ (2): *", "Stat error (1); refused, state 3, check 0" + known},
       {"stat /mnt/sdcard/.. (2): *", "Stat error (2); refused, state 3, check 0" + known},
       {"lstat *check.tmp (2): *", "disk malfunction; refused, state 1, check 0" + known},
       // The identity is read twice; what is unknown the second time is unknown.
       {"fclose *", kNoHarm},
       {"* /sys/block/mmcblk1/device/cid (2): *", served + "0, size, writes"},
       {"* /sys/block/mmcblk1/size (2): *", served + "0, cid, writes"},
       {"* /sys/fs/*/lifetime_write_kbytes *", served + "0, cid, size"}});
}

/// No card, and a machine that has been rebooted for it once.
class MissingCard {
 public:
  MissingCard() {
    Machine::MakeFile(CounterFile::kPath, CounterFile::Text(1));
    Machine::RemoveFile("/dev/mmcblk1");
    Machine::hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };
  }

  void Run() {
    Capture::Descriptor const complaints(2);
    Capture::Output([this] { result = system->InitDisk(); });
  }

  std::string Outcome() {
    bool const rebooted = !Machine::Traced("reboot").empty();
    EXPECT_EQ(result == nullptr, rebooted);
    EXPECT_EQ(system->GetHealthReport() == "{}", rebooted);
    EXPECT_TRUE(system->diskFault);
    return (rebooted ? "rebooted, " : "carried on, ") + Machine::ReadFile(CounterFile::kPath);
  }

 private:
  FakeCard card;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
  Disk* result = nullptr;
};

TEST(EveryCallFails, WhileAMissingCardIsStarted) {
  std::string const one = CounterFile::Text(1);
  std::string const two = CounterFile::Text(2);
  FaultTable::Try<MissingCard>("rebooted, " + two,
                               {{"[rw]* *: EINTR", kNoHarm},
                                {"[rw]* *: short", kNoHarm},
                                {"fopen * (1): *", "carried on, " + one},
                                {"read *", "carried on, " + one},
                                // It cannot be saved, and the card may still need the reboot.
                                {"fopen * (2): *", "rebooted, " + one},
                                {"write *", "carried on, "},
                                {"fclose * (2): *", "carried on, " + two}});
}

/// The count of reboots written, read and removed.
class Counter {
 public:
  Counter() { Machine::MakeFile(CounterFile::kPath, CounterFile::Text(1)); }

  void Run() {
    outcome << std::boolalpha;
    Capture::Output([this] {
      outcome << "saved " << system->SaveSDCardStatusCounter(2);
      outcome << ", read " << system->ReadSDCardStatusCounter();
      outcome << ", removed " << system->SaveSDCardStatusCounter(0);
    });
  }
  std::string Outcome() { return outcome.str(); }

 private:
  std::ostringstream outcome;
  std::unique_ptr<OwnedSystem> const system = NewSystem();
};

TEST(EveryCallFails, WhileTheCounterIsKept) {
  FaultTable::Try<Counter>("saved true, read 2, removed true",
                           {{"[rw]* *: EINTR", kNoHarm},
                            {"[rw]* *: short", kNoHarm},
                            {"fopen * (1): *", "saved true, read 1, removed true"},
                            {"write *", "saved false, read 0, removed true"},
                            {"fclose * (1): *", "saved false, read 2, removed true"},
                            {"fopen * (2): *", "saved true, read -1, removed true"},
                            {"read *", "saved true, read -1, removed true"},
                            {"unlink *", "saved true, read 2, removed false"}});
}

}  // namespace
