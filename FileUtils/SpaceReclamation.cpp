// Keeping the recordings within their share of the card.
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iterator>

#include "FileUtils/FilesManager.h"
#include "base/IException.h"

namespace Quellon::FileUtils {

using Tarvik::IException;

namespace {

constexpr int kFruitlessAttempts = 100;
constexpr unsigned int kFilesPerAttempt = 2;
constexpr useconds_t kAttemptPauseMicroseconds = 10000;

// Logs and positions outlive the recordings they belong to.
bool IsProtected(Ifile const& file) {
  return file.extension == ".log" || file.extension == ".gps";
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
  // The free space counts in the same share as the card itself.
  float const free = static_cast<float>(disk->freeBytes) * fraction;
  if (!(free > static_cast<float>(minFreeSpace))) return false;
  return static_cast<float>(totalFilesSize.load()) <
         static_cast<float>(disk->totalBytes) * fraction;
}

bool FilesManager::MakeRoom() {
  ResetError();
  int attemptsLeft = kFruitlessAttempts;
  ProtectedHead head;
  try {
    while (!CheckAvailableSpace(true)) {
      if (DeleteBehind(head, kFilesPerAttempt) > 0) continue;
      if (--attemptsLeft == 0) throw IException("Unable to make room, after 100 retries");
      usleep(kAttemptPauseMicroseconds);
    }
    return true;
  } catch (IException const& e) {
    return Fail(e.what(), "MakeRoom");
  }
}

unsigned int FilesManager::DeleteOldFiles(unsigned int count) {
  ProtectedHead head;
  return DeleteBehind(head, count);
}

unsigned int FilesManager::DeleteBehind(ProtectedHead& head, unsigned int count) {
  std::size_t const known = filesCount;
  if (count == 0 || known == 0) return 0;
  std::size_t const wanted = std::min<std::size_t>(count, known);

  std::lock_guard const lock(filesMutex);
  unsigned int deleted = 0;
  for (auto position = FirstBehind(head); position != files.end() && deleted < wanted;) {
    Ifile* const file = *position;
    if (IsProtected(*file)) {
      ++position;
      continue;
    }
    try {
      bool const removed = file->Remove();
      position = Erase(position);  // also a file that could not be removed: that object is
                                   // abandoned on purpose, whoever was given it may still use it
      if (!removed) continue;
      ++deleted;
      SubtractSize(*file);
      delete file;
    } catch (std::exception const&) {
      ++position;  // stays catalogued for another try
    }
  }
  head.changes = changes;  // its own deletions were all behind the head
  return deleted;
}

FilesManager::Position FilesManager::FirstBehind(ProtectedHead& head) {
  if (head.changes != changes) head.last.reset();
  auto position = head.last ? std::next(*head.last) : files.begin();
  for (; position != files.end() && IsProtected(**position); ++position) head.last = position;
  return position;
}

bool FilesManager::RemoveFileByName(std::string& fileName) {
  std::lock_guard const lock(filesMutex);
  auto const isRemoved = [&fileName](Ifile* file) {
    return file->name == fileName && file->Remove();
  };
  try {
    auto const position = std::find_if(files.begin(), files.end(), isRemoved);
    if (position == files.end()) return false;
    SubtractSize(**position);
    Erase(position);  // abandoned on purpose: whoever was given the object may still use it
    return true;
  } catch (IException const&) {
    return false;
  }
}

unsigned int FilesManager::RemoveAllFiles() {
  return DeleteOldFiles(static_cast<unsigned int>(filesCount.load()));
}

void FilesManager::RemoveAllFilesAsync() {
  if (filesCount != 0) Start();
}

void FilesManager::Run() {
  RemoveAllFiles();
  Cancel();  // one pass; a start meanwhile asks for nothing more
}

FilesManager::Position FilesManager::Erase(Position position) {
  auto const next = files.erase(position);
  filesCount = files.size();
  ++changes;
  return next;
}

void FilesManager::SubtractSize(Ifile const& file) {
  totalFilesSize -= static_cast<unsigned long long>(file.size);
}

}  // namespace Quellon::FileUtils
