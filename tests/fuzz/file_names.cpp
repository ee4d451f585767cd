// A file of any name is loaded, added and removed, and nothing but that file is touched.
#include <unistd.h>

#include "FileUtils/FilesManager.h"
#include "tests/fuzz/Target.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"

using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;

namespace {

constexpr std::size_t kLongestName = 255;

/// The bytes that may stand in a file name, as many as a name may have.
std::string AsFileName(std::string_view bytes) {
  std::string name;
  for (char const byte : bytes) {
    if (byte != '/' && byte != '\0' && name.size() < kLongestName) name += byte;
  }
  return name;
}

std::string Dotted(std::string const& name) {
  std::size_t const dot = name.rfind('.');
  return dot == std::string::npos ? "" : name.substr(dot);
}

}  // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string name = AsFileName(Fuzz::Text(data, size));
  if (name.empty() || name == "." || name == "..") return 0;
  Machine::Reset();
  Machine::MakeFile("/mnt/sdcard/cr/" + name, "four");
  Machine::MakeFile("/mnt/sdcard/bystander", "five5");
  Capture::Descriptor const quiet(STDOUT_FILENO);

  Disk disk("/mnt/sdcard/", "/dev/mmcblk1p1", "mmcblk1");
  disk.available = true;
  FilesManager catalogue(&disk, "/mnt/sdcard/cr/", 0, 1.0F);
  Fuzz::Require(catalogue.Load() && catalogue.GetList().size() == 1, "one file");
  auto* const file = catalogue.GetList().front();
  Fuzz::Require(file->name == name && file->size == 4, "its name and size");
  Fuzz::Require(file->extension == Dotted(name), "its extension");

  Fuzz::Require(catalogue.AddFile(name) && catalogue.GetTotalFilesSize() == 8, "added again");
  auto* const added = catalogue.GetList().back();
  Fuzz::Require(catalogue.RemoveFileByName(name), "removed by name");
  Fuzz::Require(!file->FileExists() && catalogue.GetTotalFilesSize() == 4, "gone, and counted");
  Fuzz::Require(!catalogue.RemoveFileByName(name) && catalogue.GetList().front() == added,
                "the entry whose file is gone stays");
  Fuzz::Require(Machine::ReadFile("/mnt/sdcard/bystander") == "five5", "others untouched");
  delete file;  // removal by name leaves the object to whoever holds it
  return 0;
}
