// soak [DAYS]: a recording service in fast motion on a real card. It makes a recording with its
// positions every minute, keeps to its share by reclaiming the oldest, and every midnight removes
// the positions of recordings that are gone and loads its catalogue anew; now and then a call
// fails. Memory, descriptors, catalogue and share are checked all along; the first that is not as
// it should be ends the run with 1.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "DiskUtils/System.h"
#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "tests/card/Card.h"
#include "tests/card/PrivateRoot.h"
#include "tests/machine/Machine.h"
#include "tests/machine/Objects.h"
#include "tests/support/Descriptors.h"
#include "tests/support/ModificationTime.h"

namespace {

/// A function of the C library whose next calls fail.
struct Fault {
  std::string function;
  int times = 0;

  std::optional<Machine::Failure> Strike(Machine::Call const& call) {
    if (times == 0 || function != call.function) return std::nullopt;
    --times;
    return EIO;
  }
  [[nodiscard]] bool HasStruck(char const* called) const {
    return function == called && times == 0;
  }
};

Fault fault;

namespace fs = std::filesystem;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;

constexpr char const* kDirectory = "/mnt/sdcard/cr/";
constexpr int kMinutesADay = 1440;
constexpr std::uint64_t kCardBytes = 32U << 20U;
constexpr std::uint64_t kMinimumFree = 1U << 20U;
constexpr std::size_t kLargestRecording = 20000;
constexpr float kShare = 0.5F;
constexpr int kFaultEvery = 97;  // minutes
constexpr int kAllAttempts = 3;  // to remove a file

void Require(bool condition, std::string const& otherwise) {
  if (!condition) throw std::runtime_error(otherwise);
}

/// The largest size in memory since the last `ForgetPeak`, in KiB.
long PeakMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    long kilobytes = 0;
    if (word == "VmHWM:" && status >> kilobytes) return kilobytes;
  }
  throw std::runtime_error("the kernel does not tell the peak of memory");
}

void ForgetPeak() {
  std::ofstream("/proc/self/clear_refs") << 5;
}

/// What the recordings directory holds, found without the library.
struct Directory {
  std::set<std::string> names;
  std::uint64_t bytes = 0;

  Directory() {
    for (auto const& entry : fs::directory_iterator(kDirectory)) {
      names.insert(entry.path().filename());
      bytes += entry.file_size();
    }
  }
};

class Service {
 public:
  Service() {
    card.Format();
    card.Insert();
    Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
    disk = Quellon::System::GetInstance()->InitDisk();
    Require(disk != nullptr && disk->available, "the card cannot be brought into service");
    fs::create_directory(kDirectory);
    catalogue = std::make_unique<FilesManager>(disk, kDirectory, kMinimumFree, kShare);
    shareBytes = static_cast<std::uint64_t>(static_cast<float>(disk->totalBytes) * kShare);
    FreeAbandoned();
  }

  void RunDays(int days) {
    for (day = 1; day <= days; ++day) {
      RunDay();
      if (day == 1) descriptors = Descriptors::Open().size();
      if (day == 2) secondPeak = peak;
      Require(Descriptors::Open().size() == descriptors, "descriptors are left open");
    }
    if (days < 3) return;
    double const growth = 100.0 * static_cast<double>(peak - secondPeak) / double(secondPeak);
    std::cout << "The last day's peak of memory differs from the second day's by " << growth << " %"
              << std::endl;
    Require(growth < 2, "memory grows");
  }

 private:
  void RunDay() {
    ForgetPeak();
    reclaimed = faults = 0;
    excess = 0;
    for (int minute = 0; minute < kMinutesADay; ++minute) {
      Record();
      if (minute % 60 == 0) CompareBytes();
    }
    std::size_t const positions = RemoveLonePositions();
    CompareNames();
    Reload();
    std::size_t const freed = FreeAbandoned();
    Require(freed == abandoned, "objects abandoned: " + std::to_string(freed) + ", expected " +
                                    std::to_string(abandoned));
    abandoned = 0;
    Machine::ForgetTrace();
    peak = PeakMemory();
    std::cout << "day " << day << ": " << recordings << " recordings, " << reclaimed
              << " reclaimed, " << positions << " positions removed, " << faults << " faults, "
              << catalogue->GetList().size() << " files, " << freed << " objects abandoned, peak "
              << peak << " KiB, " << Descriptors::Open().size() << " descriptors, at most "
              << excess << " bytes over the share" << std::endl;
  }

  // A recording and its positions, after room was made for them.
  void Record() {
    if (++recordings % kFaultEvery == 0) BreakSomething();
    MakeRoom();
    std::ostringstream number;
    number.width(7);
    number.fill('0');
    number << recordings;
    std::size_t const bytes = std::uniform_int_distribution<std::size_t>(kLargestRecording / 5,
                                                                         kLargestRecording)(random);
    Add(Write("rec_" + number.str() + ".dat", bytes));
    Add(Write("rec_" + number.str() + ".gps", 100));
    std::uint64_t const total = catalogue->GetTotalFilesSize();
    if (total > shareBytes) excess = std::max(excess, total - shareBytes);
    Require(excess <= kLargestRecording + 100, "the share is exceeded by more than a recording");
  }

  std::string Write(std::string const& name, std::size_t bytes) {
    std::string const path = kDirectory + name;
    std::ofstream(path) << std::string(bytes, 'r');
    Require(SetModificationTime(path, 1767225600 + 60L * recordings), "cannot write " + path);
    return name;
  }

  void Add(std::string name) {
    if (catalogue->AddFile(name)) return;
    Require(fault.HasStruck("lstat") && catalogue->GetError() == "File not found",
            "cannot add " + name);
    fault = {};
    ++abandoned;  // by the attempt
    Require(catalogue->AddFile(name), "cannot add " + name + " again");
  }

  void MakeRoom() {
    std::string const oldest = OldestRecording();
    std::size_t const before = catalogue->GetList().size();
    if (!catalogue->MakeRoom()) {
      Require(fault.HasStruck("statvfs") && catalogue->GetError() == "Get space stat error",
              "no room: " + catalogue->GetError());
      fault = {};
      Require(catalogue->MakeRoom(), "no room again: " + catalogue->GetError());
    }
    reclaimed += before - catalogue->GetList().size();
    if (!fault.HasStruck("unlink")) return;
    fault = {};
    if (!fs::exists(kDirectory + oldest)) return;  // it resisted just once
    dropped.insert(oldest);                        // until the catalogue is loaded anew
    ++abandoned;
    --reclaimed;
  }

  std::string OldestRecording() {
    auto const& files = catalogue->GetList();
    auto const found =
        std::ranges::find_if(files, [](Ifile* file) { return file->extension == ".dat"; });
    return found == files.end() ? std::string() : (*found)->name;
  }

  void BreakSomething() {
    static std::array<Fault, 4> const kinds = {Fault{"unlink", 1}, Fault{"unlink", kAllAttempts},
                                               Fault{"lstat", 1}, Fault{"statvfs", 1}};
    if (!fault.function.empty()) return;  // the last one has not struck yet
    fault = kinds.at(random() % kinds.size());
    ++faults;
  }

  std::size_t RemoveLonePositions() {
    fault = {};
    std::size_t removed = 0;
    Directory const directory;
    for (std::string name : directory.names) {
      if (!name.ends_with(".gps")) continue;
      if (directory.names.contains(fs::path(name).stem().string() + ".dat")) continue;
      Require(catalogue->RemoveFileByName(name), "cannot remove " + name);
      ++abandoned;
      ++removed;
    }
    return removed;
  }

  void Reload() {
    fault = {"opendir", 1};
    Require(!catalogue->LoadAndSort(), "a directory that cannot be opened was loaded");
    abandoned += catalogue->GetList().size();
    Require(catalogue->LoadAndSort(), "cannot load: " + catalogue->GetError());
    fault = {};
    dropped.clear();
    CompareNames();
    CompareBytes();
  }

  void CompareBytes() {
    std::uint64_t bytes = Directory().bytes;
    Require(catalogue->GetTotalFilesSize() == bytes,
            "catalogued are " + std::to_string(catalogue->GetTotalFilesSize()) + " bytes, " +
                std::to_string(bytes) + " are there");
  }

  void CompareNames() {
    std::set<std::string> names = dropped;
    for (Ifile const* file : catalogue->GetList()) names.insert(file->name);
    Require(names == Directory().names, "catalogue and directory differ");
  }

  // Deletes what the catalogue left to others.
  std::size_t FreeAbandoned() {
    auto const& files = catalogue->GetList();
    std::set<Ifile*> const catalogued(files.begin(), files.end());
    auto objects = Machine::LiveFiles();
    std::erase_if(objects, [&](Ifile* file) { return catalogued.contains(file); });
    for (Ifile* file : objects) delete file;
    return objects.size();
  }

  CardTests::Card card{kCardBytes};
  Quellon::DiskUtils::Disk* disk = nullptr;
  std::unique_ptr<FilesManager> catalogue;
  std::mt19937 random{20260101};
  std::uint64_t shareBytes = 0;
  std::uint64_t excess = 0;
  int day = 0;
  int recordings = 0;
  int faults = 0;
  std::size_t reclaimed = 0;
  std::size_t abandoned = 0;
  std::set<std::string> dropped;
  std::size_t descriptors = 0;
  long peak = 0;
  long secondPeak = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CardTests::RequirePrivateRoot();
  Machine::hooks().fault = [](Machine::Call const& call) { return fault.Strike(call); };
  try {
    Service().RunDays(argc > 1 ? std::atoi(argv[1]) : 1);
    return 0;
  } catch (std::exception const& e) {
    std::cerr << "soak: " << e.what() << std::endl;
    return 1;
  }
}
