// Keeping the recordings within their share of the card.
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <mutex>
#include <string_view>
#include <typeinfo>

#include "FileUtils/FilesManager.h"
#include "base/IException.h"
#include "base/MutexLock.h"
#include "base/internal/Abandon.h"

namespace Quellon::FileUtils {

using Tarvik::Abandon;
using Tarvik::IException;
using Tarvik::MutexLock;

namespace {

constexpr int kFruitlessAttempts = 100;
constexpr unsigned int kFilesPerAttempt = 2;
constexpr useconds_t kFruitlessPauseMicroseconds = 10000;

// Logs and positions (".gps") outlive the recordings they belong to. Nulls that the application has
// put into the list stay there.
bool MayBeDeleted(Ifile const* file) {
  if (file == nullptr) return false;
  std::string_view const extension = file->extension;  // a view is compared four bytes at once
  return extension != ".log" && extension != ".gps";
}

enum class Removal { Done, Failed, Thrown };

Removal Remove(Ifile& file) {
  try {
    return file.Remove() ? Removal::Done : Removal::Failed;
  } catch (std::exception const&) {
    return Removal::Thrown;
  }
}

}  // namespace

bool FilesManager::CheckAvailableSpace(bool throwIfNoDisk) {
  if (throwIfNoDisk) {
    if (!HasCard()) throw IException("Disk not available");
  } else {
    ResetError();
    // The place is that of the operation on whose behalf room is asked for.
    if (!HasCard()) return Fail("Disk not received", "MakeRoom");
  }
  disk->LoadDiskInfo();
  // The share applies to the free bytes as it does to the card's size.
  float const free = static_cast<float>(disk->freeBytes) * fraction;
  if (!(free > static_cast<float>(minFreeSpace))) return false;
  return static_cast<float>(totalFilesSize.load()) <
         static_cast<float>(disk->totalBytes) * fraction;
}

bool FilesManager::MakeRoom() {
  ResetError();
  int attemptsLeft = kFruitlessAttempts;
  try {
    while (!CheckAvailableSpace(true)) {
      if (DeleteOldFiles(kFilesPerAttempt) > 0) continue;
      if (--attemptsLeft == 0) throw IException("Unable to make room, after 100 retries");
      usleep(kFruitlessPauseMicroseconds);
    }
    return true;
  } catch (IException const& e) {
    return Fail(e.what(), "MakeRoom");
  }
}

unsigned int FilesManager::DeleteOldFiles(unsigned int count) {
  unsigned int const wanted = std::min(count, CountFiles());
  if (wanted == 0) return 0;
  MutexLock const lock(filesMutex);
  unsigned int deleted = 0;
  for (auto next = files.begin(); next != files.end() && deleted < wanted;) {
    auto const position = next++;
    Ifile* const file = *position;
    if (!MayBeDeleted(file)) continue;
    Removal const removal = Remove(*file);
    if (removal == Removal::Thrown) continue;  // stays in the catalogue, to be tried again
    files.erase(position);
    if (removal == Removal::Failed) {
      Abandon(file);
      continue;
    }
    ++deleted;
    SubtractSize(*file);
    delete file;
  }
  return deleted;
}

bool FilesManager::RemoveFileByName(std::string& fileName) {
  MutexLock const lock(filesMutex);
  auto const isRemoved = [&fileName](Ifile* file) {
    return file != nullptr && file->name == fileName && file->Remove();
  };
  try {
    auto const position = std::ranges::find_if(files, isRemoved);
    if (position == files.end()) return false;
    SubtractSize(*Abandon(*position));
    files.erase(position);
    return true;
  } catch (IException const&) {
    return false;
  }
}

unsigned int FilesManager::RemoveAllFiles() {
  return DeleteOldFiles(CountFiles());
}

void FilesManager::RemoveAllFilesAsync() {
  if (CountFiles() != 0) Start();
}

void FilesManager::Run() {
  // Otherwise the thread was started for the work of a derived class, which is destroyed already:
  // nobody asked for files to be removed.
  if (!IsReducedTo(typeid(FilesManager))) RemoveAllFiles();
  Cancel();  // one pass is enough, also if Start() was called again meanwhile
}

// Does not wait, since a thread that deletes keeps the lock for long. While another thread has the
// lock, the highest number stands for an unknown one.
unsigned int FilesManager::CountFiles() {
  std::unique_lock const lock(filesMutex, std::try_to_lock);
  if (!lock.owns_lock()) return std::numeric_limits<unsigned int>::max();
  filesMutex.AssertHeld();
  return static_cast<unsigned int>(files.size());
}

// Never below zero: a file that the application put into the list was never counted, and a total
// that wraps around would look like a full card, so that everything would be deleted.
void FilesManager::SubtractSize(Ifile const& file) {
  unsigned long long total = totalFilesSize;
  auto const less = [&] {
    return total - std::min(total, static_cast<unsigned long long>(file.size));
  };
  while (!totalFilesSize.compare_exchange_weak(total, less())) {
  }
}

}  // namespace Quellon::FileUtils
