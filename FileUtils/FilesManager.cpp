#include "FileUtils/FilesManager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <exception>
#include <list>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Logger.h"
#include "base/MutexLock.h"
#include "base/internal/Abandon.h"
#include "base/internal/OutputLine.h"
#include "base/internal/UniqueDir.h"

namespace Quellon::FileUtils {

using Tarvik::Abandon;
using Tarvik::MutexLock;
using Tarvik::UniqueDir;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;

namespace {

constexpr useconds_t kEntryPauseMicroseconds = 1000;

// A name from its last dot on. One without a dot makes substr throw, whose message is printed.
std::string DottedExtension(std::string const& fileName) {
  try {
    return fileName.substr(fileName.rfind('.'));
  } catch (std::exception const& e) {
    Tarvik::OutputLine() << e.what();
    return {};
  }
}

// One allocation; operator+ would copy the first part and then make room for the second.
std::string JoinPath(std::string const& directory, std::string_view fileName) {
  std::string path;
  path.reserve(directory.size() + fileName.size());
  path.append(directory).append(fileName);
  return path;
}

// Sorts as std::list::sort does with CBSort, but by times copied into a vector: in a long list each
// look at a file itself is a cache miss. Nodes are relinked, so iterators stay with their files.
void SortByTime(std::list<Ifile*>& files) {
  struct Entry {
    std::time_t time;
    std::list<Ifile*>::iterator position;
  };
  std::vector<Entry> entries;
  entries.reserve(files.size());
  for (auto position = files.begin(); position != files.end(); ++position) {
    entries.push_back({(*position)->time, position});
  }
  std::ranges::stable_sort(entries, {}, &Entry::time);
  for (Entry const& entry : entries) files.splice(files.end(), files, entry.position);
}

}  // namespace

FilesManager::FilesManager(Disk* card, std::string directory, unsigned long long minimumFree,
                           float share)
    : disk(card),
      path(std::move(directory)),
      fraction(share),
      minFreeSpace(minimumFree),
      totalFilesSize(0) {
  moduleName = "Quellon::FileUtils";
  className = "FilesManager";
  if (!HasCard()) return;
  AddReserve();
  LogShare();
}

// The two short forms keep nothing of their arguments; only the log lines of a short-lived
// catalogue are seen. Applications rely on such objects refusing to load.
FilesManager::FilesManager(Disk* card) : FilesManager(nullptr, {}, {}, {}) {
  FilesManager(card, {}, 0, 1.0F);  // NOLINT(bugprone-undelegated-constructor)
}

FilesManager::FilesManager(Disk* card, unsigned long long minimumFree, float share)
    : FilesManager(nullptr, {}, {}, {}) {
  FilesManager(card, {}, minimumFree, share);  // NOLINT(bugprone-undelegated-constructor)
}

FilesManager::~FilesManager() {
  Join();
  MutexLock const lock(filesMutex);
  for (Ifile* file : files) delete file;
}

bool FilesManager::HasCard() const {
  return disk != nullptr && disk->available;
}

void FilesManager::AddReserve() {
  // llround rounds and converts; unlike a cast it is defined also where the result does not fit.
  minFreeSpace += static_cast<unsigned long long>(
      std::llround(static_cast<float>(disk->reserveBytes) * fraction));
}

void FilesManager::LogShare() {
  constexpr float kKilo = 1.0F / 1024;
  LogLine(Info) << "[SYSTEM] Min free space after correction " << minFreeSpace << "B"
                << " fraction " << static_cast<double>(fraction);
  float const share = static_cast<float>(disk->totalBytes) * fraction * kKilo * kKilo;
  LogLine(Info) << "[SYSTEM] Allocated disk space " << static_cast<double>(share) << "MB";
}

bool FilesManager::Fail(char const* message, char const* where) {
  SetError(message, where, true, true);
  return false;
}

bool FilesManager::Load() {
  ResetError();
  if (!HasCard()) return Fail("The disk is not available", "Load");
  if (path.empty()) return Fail("Empty path value", "Load");
  UniqueDir directory(opendir(path.c_str()));
  if (directory == nullptr) return Fail("Could not open directory", "Load");
  if (!path.ends_with('/')) {
    Abandon(directory.release());  // left open, which is kept: the path is tested too late
    return Fail("Incorrect path", "Load");
  }
  Forget();
  totalFilesSize = 0;
  while (dirent const* entry = readdir(directory.get())) {
    usleep(kEntryPauseMicroseconds);
    LoadEntry(entry->d_name);
  }
  return true;
}

bool FilesManager::Load(std::string& directory) {
  path = directory;
  return Load();
}

bool FilesManager::LoadAndSort() {
  if (!Load()) return false;
  Sort();
  return true;
}

void FilesManager::LoadEntry(char const* entryName) {
  struct stat status {};
  std::string filePath = JoinPath(path, entryName);
  if (lstat(filePath.c_str(), &status) != 0 || S_ISDIR(status.st_mode)) return;
  auto file = MakeEntry(std::move(filePath), entryName);
  file->size = status.st_size;
  file->time = status.st_mtime;
  Append(std::move(file));
}

bool FilesManager::AddFile(std::string& fileName) {
  ResetError();
  auto file = MakeEntry(JoinPath(path, fileName), fileName);
  if (!file->Stat()) {
    Abandon(file.release());
    return Fail("File not found", "AddFile");
  }
  Append(std::move(file));
  return true;
}

std::unique_ptr<Ifile> FilesManager::MakeEntry(std::string filePath, std::string fileName) {
  auto file = std::make_unique<Ifile>();
  file->path = std::move(filePath);
  file->extension = DottedExtension(fileName);
  file->name = std::move(fileName);
  return file;
}

void FilesManager::Append(std::unique_ptr<Ifile> file) {
  totalFilesSize += static_cast<unsigned long long>(file->size);
  MutexLock const lock(filesMutex);
  files.push_back(file.get());
  static_cast<void>(file.release());  // the list owns it now
}

void FilesManager::Forget() {
  MutexLock const lock(filesMutex);
  std::ranges::for_each(files, Abandon<Ifile>);
  files.clear();
}

void FilesManager::Sort() {
  MutexLock const lock(filesMutex);
  files.remove(nullptr);  // a null has no time to sort by
  try {
    SortByTime(files);
  } catch (std::bad_alloc const&) {
    files.sort(CBSort);  // needs no memory
  }
}

bool FilesManager::CBSort(Ifile* a, Ifile* b) {
  return a->time < b->time;
}

void FilesManager::ReverseList() {
  MutexLock const lock(filesMutex);
  files.reverse();
}

void FilesManager::ClearList() {
  Forget();
}

unsigned long long FilesManager::GetTotalFilesSize(bool recalculate) {
  unsigned long long const known = totalFilesSize;
  if (!recalculate && known != 0) return known;
  MutexLock const lock(filesMutex);
  unsigned long long sum = 0;
  for (Ifile const* file : files) {
    if (file != nullptr) sum += static_cast<unsigned long long>(file->size);
  }
  totalFilesSize = sum;
  return sum;
}

unsigned long long FilesManager::GetTotalFilesSize() {
  return GetTotalFilesSize(false);
}

std::string FilesManager::GetPath() {
  return path;
}

std::list<Ifile*>& FilesManager::GetList() {
  return files;
}

void FilesManager::Log() {
  MutexLock const lock(filesMutex);
  for (Ifile const* file : files) {
    if (file != nullptr) LogLine(Info) << "[SYSTEM][" << file->name << "]";
  }
}

}  // namespace Quellon::FileUtils
