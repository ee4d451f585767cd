// Random sequences of everything a catalogue can be told, while files appear, vanish and refuse to
// go, against a simple model. QUELLON_SEED and QUELLON_SEQUENCES choose which are tried.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "base/IException.h"
#include "tests/machine/Objects.h"
#include "tests/support/CatalogueModel.h"
#include "tests/support/CatalogueTest.h"
#include "tests/support/DirectoryOrder.h"
#include "tests/support/Environment.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

/// How often anything was read or written.
int calls = 0;

namespace fs = std::filesystem;
using CatalogueModel::Figures;
using CatalogueModel::File;
using CatalogueModel::Model;
using CatalogueModel::Removal;
using CatalogueModel::State;
using Machine::Answer;

#if defined(__SANITIZE_THREAD__) || defined(__arm__)
constexpr std::uint32_t kSequences = 1000;  // the race detector and emulators take their time
#else
constexpr std::uint32_t kSequences = 3000;
#endif

enum class Deed {
  Appear,
  Vanish,
  RemovalSucceeds,
  RemovalFails,
  RemovalThrows,
  Occupy,
  Withdraw,
  Insert,
  Load,
  LoadAndSort,
  AddFile,
  RemoveFileByName,
  DeleteOldFiles,
  RemoveAllFiles,
  MakeRoom,
  Sort,
  ReverseList,
  ClearList,
  ReadTotal,
  SumTotal,
  Push,
  Erase,
  OrderByName,
  Copy,
  Write,
};

constexpr char const* kDeeds[] = {
    "Appear",         "Vanish",         "RemovalSucceeds", "RemovalFails",
    "RemovalThrows",  "Occupy",         "Withdraw",        "Insert",
    "Load",           "LoadAndSort",    "AddFile",         "RemoveFileByName",
    "DeleteOldFiles", "RemoveAllFiles", "MakeRoom",        "Sort",
    "ReverseList",    "ClearList",      "ReadTotal",       "SumTotal",
    "Push",           "Erase",          "OrderByName",     "Copy",
    "Write"};

/// What a step does is its deed; the rest are arguments, of which each deed uses its own.
struct Step {
  Deed deed;
  std::string name;
  unsigned int number;
  int time;
};

struct Script {
  Figures figures;
  std::vector<Step> steps;
};

std::ostream& operator<<(std::ostream& out, Step const& step) {
  return out << kDeeds[static_cast<int>(step.deed)] << ' ' << step.name << ' ' << step.number
             << " @" << step.time;
}

std::ostream& operator<<(std::ostream& out, Script const& script) {
  out << "card " << script.figures.cardBytes << " reserve " << script.figures.reserveBytes
      << " minimum " << script.figures.minimumFree << " share " << script.figures.share << '\n';
  for (auto const& step : script.steps) out << "  " << step << '\n';
  return out;
}

Script Invent(std::uint32_t seed) {
  constexpr char const* kNames[] = {"a.dat", "b.dat", "c.dat", "d.dat", "e.LOG",
                                    "f.log", "g.gps", ".log",  "README"};
  constexpr Deed kOften[] = {Deed::Appear, Deed::Appear, Deed::AddFile, Deed::MakeRoom};
  std::mt19937 random(seed);
  auto const below = [&random](std::size_t limit) { return random() % limit; };
  Script script{{200 + static_cast<int>(below(300)), static_cast<int>(below(40)), below(100),
                 static_cast<float>(1 + below(10)) / 10},
                {}};
  for (std::size_t left = 5 + below(40); left > 0; --left) {
    bool const often = below(2) == 0;
    Deed const deed =
        often ? kOften[below(std::size(kOften))] : static_cast<Deed>(below(std::size(kDeeds)));
    script.steps.push_back({deed, kNames[below(std::size(kNames))],
                            static_cast<unsigned int>(below(60)), static_cast<int>(below(4))});
  }
  return script;
}

/// The library's catalogue on a card of files, with the same operations as the model.
class World {
 public:
  using FilesManager = CatalogueTest::FilesManager;
  using Ifile = CatalogueTest::Ifile;

  World(CatalogueTest::Disk const& usable, Figures const& used) : card(usable), figures(used) {
    Machine::Reset();
    fs::create_directories(CatalogueTest::Where("sub"));
    card.reserveBytes = figures.reserveBytes;
    catalogue = std::make_unique<FilesManager>(&card, CatalogueTest::kDirectory,
                                               figures.minimumFree, figures.share);
    auto& hooks = Machine::hooks();
    hooks.statvfs = [this](std::string const&, struct statvfs* space) { return Measure(space); };
    hooks.unlink = [this](std::string const& path) { return Unlink(path); };
    auto const count = [](auto&&...) -> std::optional<ssize_t> {
      ++calls;
      return std::nullopt;
    };
    hooks.read = count;
    hooks.write = count;
    hooks.writev = count;
    hooks.removeFile = [this](Ifile& file) {
      if (removals[file.name] == Removal::Throws) throw Tarvik::IException("refused");
      return Machine::Remove(file);
    };
  }
  World(World const&) = delete;
  World& operator=(World const&) = delete;
  ~World() {
    catalogue.reset();
    Machine::DeleteLiveFiles();
    Machine::Reset();
  }

  void Appear(File const& file) {
    CatalogueTest::MakeRecording(file.name, static_cast<std::size_t>(file.size),
                                 static_cast<std::time_t>(file.time));
    sizes[file.name] = static_cast<std::int64_t>(file.size);
  }
  void Vanish(std::string const& name) {
    std::remove(CatalogueTest::Where(name).c_str());
    sizes.erase(name);
  }
  void Make(std::string const& name, Removal removal) { removals[name] = removal; }
  void Withdraw(bool isOut) { card.available = !isOut; }
  void Occupy(std::int64_t bytes) { occupied = bytes; }

  bool Load(std::vector<std::string> const&) { return catalogue->Load(); }
  bool LoadAndSort(std::vector<std::string> const&) { return catalogue->LoadAndSort(); }
  bool AddFile(std::string name) { return catalogue->AddFile(name); }
  bool RemoveFileByName(std::string name) { return catalogue->RemoveFileByName(name); }
  unsigned int DeleteOldFiles(unsigned int count) { return catalogue->DeleteOldFiles(count); }
  unsigned int RemoveAllFiles() { return catalogue->RemoveAllFiles(); }
  bool MakeRoom() { return catalogue->MakeRoom(); }
  void Sort() { catalogue->Sort(); }
  void ReverseList() { catalogue->ReverseList(); }
  void ClearList() { catalogue->ClearList(); }
  std::uint64_t TotalFilesSize(bool recalculate) {
    return recalculate ? catalogue->GetTotalFilesSize(true) : catalogue->GetTotalFilesSize();
  }

  void Push(File const& pushed) {
    auto file = std::make_unique<Ifile>();
    file->path = CatalogueTest::kDirectory + pushed.name;
    file->name = pushed.name;
    auto const dot = pushed.name.rfind('.');
    if (dot != std::string::npos) file->extension = pushed.name.substr(dot);
    file->size = static_cast<long long>(pushed.size);
    file->time = static_cast<std::time_t>(pushed.time);
    catalogue->GetList().push_back(file.release());
  }

  bool Erase(std::string const& name) {
    auto& list = catalogue->GetList();
    auto const found = std::ranges::find(list, name, &Ifile::name);
    if (found == list.end()) return false;
    delete *found;
    list.erase(found);
    return true;
  }

  void OrderByName() {
    catalogue->GetList().sort([](Ifile* a, Ifile* b) { return a->name > b->name; });
  }

  /// The bytes of a copy that an entry makes of its file.
  std::uint64_t Copy(std::string const& name, std::int64_t now) {
    constexpr char const* kCopy = "/mnt/sdcard/copy";
    constexpr int kCalls = 3;  // the content read and written, and its end found
    return WithEntry(name, now, kCopy, kCalls,
                     [](Ifile& entry) { EXPECT_TRUE(entry.CopyTo(kCopy)); });
  }

  /// The bytes of the file that an entry was appended to, in pieces of a byte.
  std::uint64_t Write(std::string const& name, std::uint64_t bytes, std::int64_t now) {
    return WithEntry(name, now, CatalogueTest::kDirectory + name, 1, [bytes](Ifile& entry) {
      char piece = 'x';
      EXPECT_TRUE(entry.Open(true));
      for (std::uint64_t left = bytes; left > 0; --left) EXPECT_TRUE(entry.Write(&piece, 1));
    });
  }

  State Look() const {
    State state{{}, CatalogueTest::OnCard(), Machine::LiveFiles().size(), 0, ""};
    std::erase(state.card, "sub");
    for (Ifile const* file : catalogue->GetList()) {
      state.catalogue.push_back({file->name, static_cast<std::uint64_t>(file->size), file->time});
    }
    state.sleptMs = static_cast<std::uint64_t>(Machine::Slept() / std::chrono::milliseconds(1));
    state.error = ErrorOf(*catalogue);
    return state;
  }

  /// Ends the catalogue; what is alive then was abandoned.
  std::size_t Abandoned() {
    catalogue.reset();
    return Machine::LiveFiles().size();
  }

 private:
  /// Does `work` with the first entry of that name, and takes its file for one of that time.
  /// Returns the size of `result`, unless that holds anything but what was written, or took more
  /// calls than a plain stream makes.
  template <typename Work>
  std::uint64_t WithEntry(std::string const& name, std::int64_t now, std::string const& result,
                          int callsOfAPlainStream, Work work) {
    auto& list = catalogue->GetList();
    auto const found = std::ranges::find(list, name, &Ifile::name);
    if (found == list.end()) return 0;
    calls = 0;
    work(**found);
    (*found)->Close();
    if (calls > callsOfAPlainStream) return std::uint64_t(-1);
    CatalogueTest::SetTime(name, static_cast<std::time_t>(now));
    sizes[name] = static_cast<std::int64_t>(fs::file_size(CatalogueTest::Where(name)));
    std::string const content = Machine::ReadFile(result);
    return content.find_first_not_of('x') == std::string::npos ? content.size() : std::uint64_t(-2);
  }

  Answer Measure(struct statvfs* space) const {
    std::int64_t free = figures.cardBytes - occupied;
    for (auto const& [name, size] : sizes) free -= size;
    space->f_frsize = 1;
    space->f_blocks = static_cast<fsblkcnt_t>(figures.cardBytes);
    space->f_bfree = static_cast<fsblkcnt_t>(std::max<std::int64_t>(free, 0));
    return Answer::Success();
  }

  Answer Unlink(std::string const& path) {
    std::string const name = fs::path(path).filename();
    if (removals[name] == Removal::Fails) return Answer::Failure(EBUSY);
    Vanish(name);
    return Answer::Success();
  }

  CatalogueTest::Disk card;
  Figures figures;
  std::unique_ptr<FilesManager> catalogue;
  std::map<std::string, std::int64_t> sizes;
  std::map<std::string, Removal> removals;
  std::int64_t occupied = 0;
};

/// Does the step on the world or on the model of it; returns what it returned.
template <typename Subject>
std::uint64_t Do(Step const& step, Subject& subject, std::vector<std::string> const& order) {
  switch (step.deed) {
    case Deed::Appear:
      return subject.Appear({step.name, step.number, step.time}), 0;
    case Deed::Vanish:
      return subject.Vanish(step.name), 0;
    case Deed::RemovalSucceeds:
      return subject.Make(step.name, Removal::Succeeds), 0;
    case Deed::RemovalFails:
      return subject.Make(step.name, Removal::Fails), 0;
    case Deed::RemovalThrows:
      return subject.Make(step.name, Removal::Throws), 0;
    case Deed::Occupy:
      return subject.Occupy(step.number * 5), 0;
    case Deed::Withdraw:
      return subject.Withdraw(true), 0;
    case Deed::Insert:
      return subject.Withdraw(false), 0;
    case Deed::Load:
      return subject.Load(order);
    case Deed::LoadAndSort:
      return subject.LoadAndSort(order);
    case Deed::AddFile:
      return subject.AddFile(step.name);
    case Deed::RemoveFileByName:
      return subject.RemoveFileByName(step.name);
    case Deed::DeleteOldFiles:
      return subject.DeleteOldFiles(step.number % 6);
    case Deed::RemoveAllFiles:
      return subject.RemoveAllFiles();
    case Deed::MakeRoom:
      return subject.MakeRoom();
    case Deed::Sort:
      return subject.Sort(), 0;
    case Deed::ReverseList:
      return subject.ReverseList(), 0;
    case Deed::ClearList:
      return subject.ClearList(), 0;
    case Deed::ReadTotal:
      return subject.TotalFilesSize(false);
    case Deed::SumTotal:
      return subject.TotalFilesSize(true);
    case Deed::Push:
      return subject.Push({step.name, step.number, step.time}), 0;
    case Deed::Erase:
      return subject.Erase(step.name);
    case Deed::OrderByName:
      return subject.OrderByName(), 0;
    case Deed::Copy:
      return subject.Copy(step.name, step.time);
    case Deed::Write:
      return subject.Write(step.name, step.number, step.time);
  }
  std::abort();
}

std::string Describe(State const& state) {
  std::ostringstream text;
  text << "catalogue";
  for (auto const& file : state.catalogue) {
    text << ' ' << file.name << '(' << file.size << " @" << file.time << ')';
  }
  text << ", card";
  for (auto const& name : state.card) text << ' ' << name;
  text << ", " << state.objects << " objects, slept " << state.sleptMs << " ms, error '"
       << state.error << '\'';
  return text.str();
}

/// What has come of the steps of all scripts, so that none was tried in vain.
std::map<std::string, int> outcomes;

void Count(Step const& step, std::uint64_t result, State const& before, State const& after) {
  std::string outcome = kDeeds[static_cast<int>(step.deed)];
  if (before.card.size() > after.card.size()) outcome += " deletes";
  if (before.catalogue.size() + after.card.size() > after.catalogue.size() + before.card.size()) {
    outcome += " drops";
  }
  if (result == 0) outcome += " in vain";
  ++outcomes[outcome];
}

/// The first difference between the library and the model, if there is one.
std::optional<std::string> Difference(CatalogueTest::Disk const& card, Script const& script,
                                      bool positionsAreProtected = true) {
  World world(card, script.figures);
  Model model(script.figures, positionsAreProtected);
  for (auto const& step : script.steps) {
    bool const loads = step.deed == Deed::Load || step.deed == Deed::LoadAndSort;
    auto const order =
        loads ? DirectoryOrder(CatalogueTest::kDirectory) : std::vector<std::string>();
    State const before = model.Look();
    auto const result = Do(step, world, order);
    auto const expected = Do(step, model, order);
    State const is = world.Look();
    State const shouldBe = model.Look();
    Count(step, expected, before, shouldBe);
    if (result == expected && is == shouldBe) continue;
    std::ostringstream text;
    text << "at " << step << "\n  is        " << result << ", " << Describe(is) << "\n  should be "
         << expected << ", " << Describe(shouldBe);
    return text.str();
  }
  if (world.Abandoned() == model.Abandoned()) return std::nullopt;
  return "another number of objects is left over";
}

/// Leaves out steps, many at first and then one by one, as long as `fails` holds.
Script Shrink(Script script, std::function<bool(Script const&)> const& fails) {
  for (std::size_t piece = script.steps.size(); piece > 0;) {
    bool shrunk = false;
    for (std::size_t at = 0; at + piece <= script.steps.size();) {
      Script shorter = script;
      auto const first = shorter.steps.begin() + static_cast<std::ptrdiff_t>(at);
      shorter.steps.erase(first, first + static_cast<std::ptrdiff_t>(piece));
      if (fails(shorter)) {
        script = shorter;
        shrunk = true;
      } else {
        at += piece;
      }
    }
    if (!shrunk || piece > 1) piece /= 2;
  }
  return script;
}

class CatalogueProperties : public CatalogueTest {
 protected:
  // Names without a dot are complained of on standard output, and catalogues log their figures.
  CatalogueProperties() { std::cout.setstate(std::ios::badbit); }
  ~CatalogueProperties() override { std::cout.clear(); }

  Scoped::AtEnd const silence = LogFile::Silence();
};

TEST_F(CatalogueProperties, EverySequenceGoesAsTheModelSays) {
  std::uint32_t const seed = Environment::Number("QUELLON_SEED", std::random_device()());
  std::uint32_t const sequences = Environment::Number("QUELLON_SEQUENCES", kSequences);
  std::printf("QUELLON_SEED=%u QUELLON_SEQUENCES=%u\n", seed, sequences);
  for (std::uint32_t number = 0; number < sequences; ++number) {
    Script const script = Invent(seed + number);
    if (!Difference(card, script)) continue;
    auto const isWrong = [this](Script const& shorter) {
      return Difference(card, shorter).has_value();
    };
    Script const shortest = Shrink(script, isWrong);
    FAIL() << "QUELLON_SEED=" << seed + number << " QUELLON_SEQUENCES=1 shows it again:\n"
           << shortest << *Difference(card, shortest);
  }
  if (sequences < 1000) return;
  for (char const* outcome :
       {"Load", "Load in vain", "LoadAndSort", "AddFile", "AddFile in vain",
        "RemoveFileByName deletes", "RemoveFileByName in vain", "DeleteOldFiles deletes",
        "DeleteOldFiles deletes drops", "DeleteOldFiles drops in vain", "RemoveAllFiles deletes",
        "MakeRoom", "MakeRoom deletes", "MakeRoom deletes drops", "MakeRoom in vain", "Erase drops",
        "Copy", "Write"}) {
    EXPECT_GT(outcomes[outcome], 0) << outcome << " was never seen";
  }
}

TEST_F(CatalogueProperties, AMistakeIsFoundAndShrunkToItsFewestSteps) {
  auto const isWrong = [this](Script const& script) {
    return Difference(card, script, false).has_value();
  };
  for (std::uint32_t seed = 0; seed < 1000; ++seed) {
    Script const script = Invent(seed);
    if (!isWrong(script)) continue;
    Script const shortest = Shrink(script, isWrong);
    EXPECT_LE(shortest.steps.size(), 3U) << shortest;
    EXPECT_EQ(shortest.steps.front().name, "g.gps") << shortest;
    return;
  }
  FAIL() << "the mistake was never found";
}

}  // namespace
