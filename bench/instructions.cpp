// What callgrind counts: one kind of work, named by the argument, repeated 1,000 times. Only the
// work itself is counted, not what prepares it.
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "bench/support.h"

namespace {

using Quellon::FileUtils::FilesManager;
using Tarvik::Ilog::LogLine;

constexpr unsigned long long kTimes = 1000;
constexpr char const* kName = "rec_000042.dat";

void LogLines() {
  for (std::size_t i = 0; i < kTimes; ++i)
    LogLine(Tarvik::Ilog::Info) << "[SYSTEM] recording " << kName << " size " << kTimes;
}

/// As many recordings as fill the card many times over.
class FullCatalogue {
 public:
  FullCatalogue() {
    Bench::MakeRecordings(directory, kTimes, ".dat", static_cast<std::size_t>(card.totalBytes));
  }
  void Load() { Require(catalogue.LoadAndSort() && catalogue.GetList().size() == kTimes); }
  void MakeRoom() { Require(catalogue.MakeRoom() && catalogue.GetList().empty()); }

 private:
  static void Require(bool done) {
    if (!done) throw std::runtime_error("the work was not done");
  }
  static Quellon::DiskUtils::Disk MeasuredCard() {
    auto card = Bench::Card();
    card.LoadDiskInfo();
    return card;
  }

  std::filesystem::path directory = Bench::Folder() / "cr";
  Quellon::DiskUtils::Disk card = MeasuredCard();
  FilesManager catalogue{&card, directory.string() + "/", 0, 1.0F};
};

template <typename Work>
void Count(Work work) {
  CALLGRIND_TOGGLE_COLLECT;
  work();
  CALLGRIND_TOGGLE_COLLECT;
}

void Do(std::string_view work) {
  LogLines();
  if (work == "log_line") return Count(LogLines);
  FullCatalogue catalogue;
  if (work == "catalogued_file") return Count([&] { catalogue.Load(); });
  catalogue.Load();
  Count([&] { catalogue.MakeRoom(); });
}

}  // namespace

int main(int argc, char** argv) {
  Bench::WithoutPauses const immediate;
  Bench::Redirect(STDOUT_FILENO, Bench::Folder() / "console.log");
  Do(argc > 1 ? argv[1] : "");
}

// A second that ends meanwhile would have its date formatted.
time_t time(time_t* result) noexcept {
  constexpr time_t kNow = 1'700'000'000;
  if (result != nullptr) *result = kNow;
  return kNow;
}
