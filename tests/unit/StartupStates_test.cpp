// The start-up policy explored to its fixpoint: from each content of the counter file, with each
// card and each failing call, real starts, and again from what they leave in the file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "DiskUtils/System.h"
#include "tests/machine/Failures.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/CounterFile.h"
#include "tests/support/FakeCard.h"
#include "tests/support/OwnedSystem.h"

namespace {

using Quellon::DiskUtils::Disk;
using testing::IsSupersetOf;

/// What the counter file holds; nothing without a file.
using Counter = std::optional<std::string>;

/// What is put into the slot, and how the health report names it if nothing else fails.
struct Card {
  std::string name;
  int state;
  std::function<void(FakeCard&)> insert;
  std::string hiddenBy = "^$";  ///< the calls that, when they fail, let it pass for a good one
};

void PullCard() {
  for (char const* node : {"/dev/mmcblk1", "/dev/mmcblk1p1", "/sys/block/mmcblk1"}) {
    Machine::RemoveFile(node);
  }
}

/// Neither system call nor command mounts it.
void Damage(FakeCard& card) {
  card.mounted = card.systemCallsWork = false;
  card.fsckCode = 8;
  Machine::hooks().system = [command = Machine::hooks().system](std::string const& text) {
    return text.starts_with("mount ") ? Machine::Answer{32 << 8, 0} : *command(text);
  };
}

std::vector<Card> const& Cards() {
  static std::vector<Card> const cards = {
      {"good", 0, [](FakeCard& card) { card.mounted = false; }},
      {"good and mounted", 0, [](FakeCard&) {}},
      {"absent", 3, [](FakeCard&) { PullCard(); }},
      {"damaged", 3, Damage},
      {"read-only", 2, [](FakeCard&) { FakeCard::SetProperty("ro", "1\n"); }, "/ro \\("},
      {"read-only later", 2,
       [](FakeCard& card) { card.duringCheck = [] { FakeCard::SetProperty("ro", "1\n"); }; },
       "/ro \\(|system fsck"},
      {"lying", 1,
       [](FakeCard& card) { card.duringCheck = [] { Machine::RemoveFile(FakeCard::kTestFile); }; },
       "system fsck"}};
  return cards;
}

/// What the counter file lies on, for the life of the device.
struct Storage {
  std::string function;  ///< the call on the file that fails
  int error;
};

enum class End { Reboot, InService, WithoutACard };

/// What came of a start.
struct Outcome {
  End end;
  std::string failure;
  Counter counter;
  std::set<Counter> whenPowerIsCut;  ///< what the file held meanwhile
  Machine::Ways ways;
};

/// Where the start has been, by the names of the diagram.
class Route {
 public:
  /// What a call tells of it.
  void Note(Machine::Call const& call) {
    std::string const text = call.function + " " + call.subject;
    if (text == "access /dev/mmcblk1") Enter(isChecked ? "again" : "look");
    if (call.function == "mount" && !isChecked) Enter("mount");
    if (call.function == "statvfs") Enter("measure");
    if (text == "lstat /mnt/sdcard/check.tmp") Enter(isChecked ? "survived" : "write");
    if (text == "unlink /mnt/sdcard/check.tmp" && isChecked) Enter("writable");
    if (text == "system umount /mnt/sdcard/") {
      isChecked = true;
      Enter("check");
    }
  }

  /// What its output tells, and how it ended.
  void Finish(std::string const& output, End end) {
    auto const says = [&](char const* text) { return output.find(text) != std::string::npos; };
    if (says("disk malfunction")) Enter("survived");
    if (says("Exception disk (0): ")) Enter("failed");
    if (says("Save sdcard status counter ")) Enter("save");
    Enter(end == End::Reboot ? "restart" : end == End::InService ? "good" : "without");
  }

  [[nodiscard]] std::set<std::string> const& Edges() const { return edges; }

 private:
  void Enter(std::string const& node) {
    if (node == place) return;
    edges.insert(place + " -> " + node);
    place = node;
  }

  std::string place = "start";
  bool isChecked = false;
  std::set<std::string> edges;
};

/// The steps that the page's diagram shows.
// Read before a test begins: from then on, paths may lead away.
std::string const diagram = [] {
  std::ifstream file(QUELLON_DIAGRAM);
  return std::string(std::istreambuf_iterator<char>(file), {});
}();

std::set<std::string> EdgesOfDiagram() {
  std::regex const edge(R"((\w+ -> \w+))");
  std::set<std::string> edges;
  for (std::sregex_iterator found(diagram.begin(), diagram.end(), edge), end; found != end;
       ++found) {
    edges.insert(found->str());
  }
  return edges;
}

class StartupStates : public testing::Test {
 protected:
  /// All starts that can come of a file that holds any of `begin`.
  void Explore(std::set<Counter> const& begin, std::optional<Storage> const& kept = {}) {
    storage = kept;
    std::vector<Counter> left(begin.begin(), begin.end());
    while (!left.empty() && !HasFailure()) {
      Counter const counter = left.back();
      left.pop_back();
      if (starts.contains(counter)) continue;
      starts[counter] = StartFrom(counter);
      for (auto const& start : starts[counter]) {
        if (start.end == End::Reboot && start.failure.empty()) {
          rebootsTo[counter].insert(start.counter);
        }
        left.push_back(start.counter);
        left.insert(left.end(), start.whenPowerIsCut.begin(), start.whenPowerIsCut.end());
      }
    }
    std::size_t runs = 0;
    for (auto const& [counter, outcomes] : starts) runs += outcomes.size();
    std::cout << "[ STATES   ] " << starts.size() << " contents, " << runs << " starts"
              << std::endl;
  }

  /// The most reboots in a row without a failing call.
  int Reboots(Counter const& counter, int depth = 0) {
    if (depth > std::ssize(starts)) return 0;  // in a circle: more than there may be by then
    int most = 0;
    for (auto const& next : rebootsTo[counter]) {
      most = std::max(most, Reboots(next, depth + 1) + 1);
    }
    return most;
  }

  /// Each reboot without a failing call leaves one less; each with one never leaves more, and is
  /// not counted only where the file could not be opened. So there are three in a row, and one more
  /// for each start in which that fails.
  void CheckThatRebootsEnd() {
    for (auto const& [counter, outcomes] : starts) {
      int const most = Reboots(counter);
      EXPECT_LE(most, 3) << counter.value_or("no file");
      for (auto const& start : outcomes) {
        if (start.end != End::Reboot) continue;
        int const left = Reboots(start.counter);
        EXPECT_LE(left, most) << start.failure;
        bool const isCounted = left < most;
        EXPECT_TRUE(isCounted || start.failure.starts_with("fopen /root/system.dat (2): "))
            << start.failure;
      }
    }
  }

  std::map<Counter, std::vector<Outcome>> starts;
  std::set<std::string> edges;

 private:
  /// With each card, each failure of a call in the first and the last of its ways, and the card
  /// pulled at each call.
  std::vector<Outcome> StartFrom(Counter const& counter) {
    std::vector<Outcome> outcomes;
    for (auto const& card : Cards()) {
      outcomes.push_back(Start(counter, card, {}));
      auto const ways = outcomes.back().ways;
      for (int call = 1; call <= std::ssize(ways); ++call) {
        std::size_t const last = ways[static_cast<std::size_t>(call) - 1] - 1;
        for (std::size_t const way : std::set<std::size_t>{0, last}) {
          outcomes.push_back(Start(counter, card, {{call, way}}));
        }
        if (card.name == "good") outcomes.push_back(Start(counter, card, {}, call));
      }
    }
    return outcomes;
  }

  Outcome Start(Counter const& counter, Card const& card, std::vector<Machine::Point> const& point,
                int pulledAt = 0) {
    Machine::Reset();
    FakeCard slot;
    card.insert(slot);
    Machine::MakeFile(CounterFile::kPath, counter.value_or(""));
    if (!counter) Machine::RemoveFile(CounterFile::kPath);
    Machine::hooks().reboot = [](int) { return Machine::Answer::Failure(EPERM); };

    auto const system = NewSystem();
    Disk* result = nullptr;
    Outcome outcome{};
    Route route;
    std::string output;
    {
      Machine::FailingCalls const failing(point);
      int calls = 0;
      Machine::hooks().fault = [&, fault = Machine::hooks().fault](Machine::Call const& call) {
        if (call.subject == CounterFile::kPath) outcome.whenPowerIsCut.insert(Held());
        if (++calls == pulledAt) PullCard();
        route.Note(call);
        auto const failure = fault(call);
        return IsBad(call) ? Machine::Failure(storage->error) : failure;
      };
      Capture::Descriptor const complaints(2);
      output = Capture::Output([&] { result = system->InitDisk(); });
      outcome.failure = failing.Text();
      outcome.ways = failing.WaysOfCalls();
    }
    outcome.counter = Held();
    outcome.end = !Machine::Traced("system reboot").empty() ? End::Reboot
                  : result != nullptr && result->available  ? End::InService
                                                            : End::WithoutACard;
    route.Finish(output, outcome.end);
    edges.insert(route.Edges().begin(), route.Edges().end());
    bool const hasFault = !outcome.failure.empty() || pulledAt != 0;
    SCOPED_TRACE(card.name + ", " + counter.value_or("no file") + ", " + outcome.failure +
                 ", pulled at call " + std::to_string(pulledAt));
    EXPECT_EQ(result == nullptr, outcome.end == End::Reboot);
    EXPECT_TRUE(hasFault || (outcome.end == End::InService) == (card.state == 0));
    CheckReport(system->GetHealthReport(), outcome, card, hasFault);
    return outcome;
  }

  /// The report says what is so.
  static void CheckReport(std::string const& report, Outcome const& outcome, Card const& card,
                          bool hasFault) {
    if (outcome.end == End::Reboot) {
      EXPECT_EQ(report, "{}");
      return;
    }
    bool const saysGood = report.find(R"("zr":0,)") != std::string::npos;
    EXPECT_EQ(saysGood, outcome.end == End::InService) << report;
    if (!hasFault) {
      EXPECT_THAT(report, testing::HasSubstr("\"zr\":" + std::to_string(card.state) + ","));
    } else if (saysGood && card.state != 0) {
      EXPECT_THAT(outcome.failure, testing::ContainsRegex(card.hiddenBy));
    }
  }

  static Counter Held() {
    auto const real = Machine::Real(CounterFile::kPath);
    if (!std::filesystem::is_regular_file(real)) return std::nullopt;
    return Machine::ReadFile(CounterFile::kPath);
  }

  [[nodiscard]] bool IsBad(Machine::Call const& call) const {
    return storage && call.subject == CounterFile::kPath && call.function == storage->function;
  }

  std::optional<Storage> storage;
  std::map<Counter, std::set<Counter>> rebootsTo;  ///< where no call failed
};

/// A file that nobody has written yet, or somebody else.
std::set<Counter> AllContents() {
  return {std::nullopt,
          "",
          "no JSON",
          "[1]",
          R"({"other":1})",
          CounterFile::Text(-1),
          CounterFile::Text(1),
          CounterFile::Text(2147483647)};
}

TEST_F(StartupStates, RebootAtMostThreeTimesInARowAndAreThoseOfTheDiagram) {
  Explore(AllContents());
  CheckThatRebootsEnd();
  std::map<Counter, int> const reboots = {{std::nullopt, 3},
                                          {"", 3},
                                          {"[1]", 3},
                                          {R"({"other":1})", 3},
                                          {CounterFile::Text(1), 2},
                                          {CounterFile::Text(2), 1},
                                          {CounterFile::Text(3), 0},
                                          {CounterFile::Text(2147483647), 0},
                                          {CounterFile::Text(-1), 0},
                                          {"no JSON", 0}};
  for (auto const& [counter, count] : reboots) {
    ASSERT_TRUE(starts.contains(counter)) << counter.value_or("no file");
    EXPECT_EQ(Reboots(counter), count) << counter.value_or("no file");
  }
  EXPECT_EQ(edges, EdgesOfDiagram());
  // Saving empties the file first: a power cut then gives the device all its reboots back.
  auto const isEmptied = [](Outcome const& start) { return start.whenPowerIsCut.contains(""); };
  EXPECT_TRUE(std::ranges::any_of(starts[CounterFile::Text(2)], isEmptied));
}

class StartupStatesWithABadCounterFile : public StartupStates {
 protected:
  // But for a failing call, as above.
  void NeverReboot(std::string const& function, int error) {
    Explore({std::nullopt, CounterFile::Text(1)}, Storage{function, error});
    CheckThatRebootsEnd();
    for (auto const& [counter, outcomes] : starts) {
      EXPECT_EQ(Reboots(counter), 0) << counter.value_or("no file");
    }
    EXPECT_THAT(EdgesOfDiagram(), IsSupersetOf(edges));
  }
};

TEST_F(StartupStatesWithABadCounterFile, NeverRebootWhereItIsReadOnly) {
  NeverReboot("fopen", EROFS);
}

TEST_F(StartupStatesWithABadCounterFile, NeverRebootWhereItCannotBeRead) {
  NeverReboot("read", EIO);
}

TEST_F(StartupStatesWithABadCounterFile, NeverRebootWhereTheStorageIsFull) {
  NeverReboot("write", ENOSPC);
}

}  // namespace
