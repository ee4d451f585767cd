#include "tests/machine/Objects.h"

#include <atomic>
#include <compare>
#include <cstdint>
#include <mutex>

#include "DiskUtils/Disk.h"
#include "DiskUtils/System.h"
#include "tests/machine/Machine.h"
#include "tests/machine/TheReal.h"

using Machine::Ifile;
using Quellon::DiskUtils::Disk;

namespace {

// An object is noted by its address with all bits turned over: to a leak checker a pointer here
// would look like one that is still in use.
class HiddenPointer {
 public:
  explicit HiddenPointer(Ifile* file) : hidden(~reinterpret_cast<std::uintptr_t>(file)) {}
  [[nodiscard]] Ifile* Get() const { return reinterpret_cast<Ifile*>(~hidden); }
  auto operator<=>(HiddenPointer const&) const = default;

 private:
  std::uintptr_t hidden;
};

struct Registry {
  std::mutex mutex;
  std::set<HiddenPointer> alive;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

void Forget(Ifile* file) {
  std::lock_guard const lock(registry().mutex);
  registry().alive.erase(HiddenPointer(file));
}

std::atomic<int> destroyedDisks = 0;

}  // namespace

namespace Machine {

std::set<Ifile*> LiveFiles() {
  std::lock_guard const lock(registry().mutex);
  std::set<Ifile*> files;
  for (HiddenPointer const file : registry().alive) files.insert(file.Get());
  return files;
}

void DeleteLiveFiles() {
  for (Ifile* const file : LiveFiles()) delete file;
}

bool Remove(Ifile& file) {
  static auto* const next = TheReal<bool(Ifile*)>("_ZN7Quellon9FileUtils5Ifile6RemoveEv");
  return next(&file);
}

int DestroyedDisks() {
  return destroyedDisks;
}

}  // namespace Machine

bool Quellon::FileUtils::Ifile::Remove() {
  auto const& hook = Machine::hooks().removeFile;
  return hook ? hook(*this) : Machine::Remove(*this);
}

bool Quellon::System::SaveSDCardStatusCounter(int counter) {
  static auto* const next =
      TheReal<bool(System*, int)>("_ZN7Quellon6System23SaveSDCardStatusCounterEi");
  auto const& hook = Machine::hooks().saveStatusCounter;
  return hook ? hook(counter) : next(this, counter);
}

void Disk::ScanDisk() {
  static auto* const next = TheReal<void(Disk*)>("_ZN7Quellon9DiskUtils4Disk8ScanDiskEv");
  auto const& hook = Machine::hooks().scanDisk;
  hook ? hook() : next(this);
}

// On some machines constructors and destructors return their object, on the others nobody looks.
extern "C" {

Ifile* ConstructFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileC1Ev");
Ifile* DestroyFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileD1Ev");
void DeleteFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileD0Ev");
Disk* DestroyDisk(Disk* disk) __asm__("_ZN7Quellon9DiskUtils4DiskD1Ev");
void DeleteDisk(Disk* disk) __asm__("_ZN7Quellon9DiskUtils4DiskD0Ev");

Ifile* ConstructFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileC1Ev");
  next(file);
  std::lock_guard const lock(registry().mutex);
  registry().alive.emplace(file);
  return file;
}

Ifile* DestroyFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileD1Ev");
  Forget(file);
  next(file);
  return file;
}

void DeleteFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileD0Ev");
  Forget(file);
  next(file);
}

Disk* DestroyDisk(Disk* disk) {
  static auto* const next = TheReal<void(Disk*)>("_ZN7Quellon9DiskUtils4DiskD1Ev");
  ++destroyedDisks;
  next(disk);
  return disk;
}

void DeleteDisk(Disk* disk) {
  static auto* const next = TheReal<void(Disk*)>("_ZN7Quellon9DiskUtils4DiskD0Ev");
  ++destroyedDisks;
  next(disk);
}

}  // extern "C"
