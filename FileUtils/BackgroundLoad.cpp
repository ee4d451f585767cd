#include "FileUtils/BackgroundLoad.h"

#include <algorithm>
#include <iterator>
#include <list>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "FileUtils/File.h"

namespace Quellon::FileUtils {

namespace {

constexpr std::chrono::minutes kLongestLoad(30);

}  // namespace

BackgroundLoad::BackgroundLoad(FilesManager& loaded)
    : catalogue(loaded), end(std::chrono::steady_clock::now() + kLongestLoad) {
  try {
    loader = std::thread([this] { Load(); });
  } catch (std::system_error const&) {  // NOLINT(bugprone-empty-catch): `Finish` loads it
  }
}

BackgroundLoad::~BackgroundLoad() {
  if (loader.joinable()) loader.join();
}

void BackgroundLoad::Add(std::string name) {
  std::erase(added, name);
  added.push_back(std::move(name));
}

bool BackgroundLoad::IsOver() const {
  return isOver || !loader.joinable();
}

bool BackgroundLoad::Hangs() const {
  return !IsOver() && std::chrono::steady_clock::now() > end;
}

bool BackgroundLoad::Finish() {
  if (loader.joinable()) {
    loader.join();
  } else {
    Load();
  }
  if (failure) std::rethrow_exception(failure);
  if (!isLoaded) return false;
  TakeOutAdded();
  std::ranges::copy_if(added, std::back_inserter(gone),
                       [this](std::string& name) { return !catalogue.AddFile(name); });
  catalogue.GetTotalFilesSize(true);
  return true;
}

std::vector<std::string> const& BackgroundLoad::GetGone() const {
  return gone;
}

void BackgroundLoad::Load() noexcept {
  try {
    isLoaded = catalogue.LoadAndSort();
  } catch (...) {
    failure = std::current_exception();
  }
  isOver = true;
}

// The load may have found a file that was completed meanwhile, with the size it had then.
void BackgroundLoad::TakeOutAdded() {
  std::set<std::string> const names(added.begin(), added.end());
  std::erase_if(catalogue.GetList(), [&names](Ifile* file) {
    if (!names.contains(file->name)) return false;
    std::unique_ptr<Ifile> const owned(file);
    return true;
  });
}

}  // namespace Quellon::FileUtils
