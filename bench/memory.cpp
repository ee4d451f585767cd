// The memory that a catalogued file takes, in bytes, and how much of it the interface fixes: a list
// node, the file object with its path, and the stream that the object keeps. Runs on any
// architecture; one line of JSON.
#include <malloc.h>

#include <cstdio>
#include <fstream>

#include "FileUtils/FilesManager.h"
#include "base/Logger.h"
#include "bench/support.h"

namespace {

using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Ifile;

constexpr std::size_t kFiles = 2000;

std::size_t AllocatedBytes() {
  struct mallinfo2 const info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// What a text needs outside its string object.
std::size_t Outside(std::string const& text) {
  return text.size() > std::string().capacity() ? text.size() + 1 : 0;
}

std::size_t FixedByTheInterface(Ifile const& file) {
  constexpr std::size_t kNode = 3 * sizeof(void*);
  return kNode + sizeof file + sizeof *file.stream + Outside(file.path) + Outside(file.name);
}

}  // namespace

int main() {
  Tarvik::Ilog::Logger::GetInstance()->consoleSink->enabled = false;
  Bench::WithoutPauses const immediate;
  auto const directory = Bench::Folder() / "cr";
  Bench::MakeRecordings(directory, kFiles);
  auto card = Bench::Card();
  FilesManager catalogue(&card, directory.string() + "/", 0, 1.0F);
  catalogue.LoadAndSort();
  catalogue.RemoveAllFiles();  // what is allocated once is there now

  Bench::MakeRecordings(directory, kFiles);
  std::size_t const before = AllocatedBytes();
  if (!catalogue.LoadAndSort() || catalogue.GetList().size() != kFiles) return 1;
  std::size_t const taken = AllocatedBytes() - before;
  std::printf(R"({"bytes": %.1f, "fixed": %zu})"
              "\n",
              static_cast<double>(taken) / kFiles,
              FixedByTheInterface(*catalogue.GetList().front()));
}
