// What tests of the catalogue share: a card that may be used and a directory of recordings on it.
#pragma once

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "DiskUtils/Disk.h"
#include "FileUtils/FilesManager.h"
#include "tests/machine/Machine.h"
#include "tests/machine/Objects.h"
#include "tests/support/Capture.h"
#include "tests/support/FakeCard.h"
#include "tests/support/ModificationTime.h"

class CatalogueTest : public testing::Test {
 public:
  using Disk = Quellon::DiskUtils::Disk;
  using FilesManager = Quellon::FileUtils::FilesManager;
  using Ifile = Quellon::FileUtils::Ifile;

  static constexpr char const* kDirectory = "/mnt/sdcard/cr/";

  /// Makes a recording of that size and age.
  static void MakeRecording(std::string const& name, std::size_t size = 0, std::time_t time = 0) {
    Machine::MakeFile(kDirectory + name, std::string(size, 'x'));
    SetTime(name, time);
  }

  static void SetTime(std::string const& name, std::time_t time) {
    SetModificationTime(Where(name), time);
  }

  static std::filesystem::path Where(std::string const& name) {
    return Machine::Real(kDirectory + name);
  }

  /// The names in the directory, in the order of the alphabet.
  static std::vector<std::string> OnCard() {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(Machine::Real(kDirectory))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  /// The names in the catalogue, in its order.
  static std::vector<std::string> Names(FilesManager& catalogue) {
    std::vector<std::string> names;
    for (Ifile const* file : catalogue.GetList()) names.push_back(file->name);
    return names;
  }

 protected:
  CatalogueTest() : card(NewCard()) {
    std::filesystem::create_directories(Machine::Real(kDirectory));
    Machine::hooks().statvfs = [this](std::string const& path, struct statvfs* space) {
      EXPECT_EQ(path, "/mnt/sdcard/");
      space->f_frsize = 1;
      space->f_blocks = static_cast<fsblkcnt_t>(totalBytes);
      space->f_bfree = static_cast<fsblkcnt_t>(freeBytes);
      return Machine::Answer::Success();
    };
  }

  /// Also the objects that catalogues abandoned.
  ~CatalogueTest() override { Machine::DeleteLiveFiles(); }

  /// A catalogue of that directory, which has logged its figures out of sight.
  template <typename Type = FilesManager>
  std::unique_ptr<Type> NewCatalogue(std::string const& directory = kDirectory,
                                     unsigned long long minimumFree = 0, float share = 1.0F) {
    Capture::Descriptor const hidden(1);
    return std::make_unique<Type>(&card, directory, minimumFree, share);
  }

  /// Adds files that exist, oldest first.
  static void Add(FilesManager& catalogue, std::vector<std::string> names) {
    for (auto& name : names) EXPECT_TRUE(catalogue.AddFile(name)) << name;
  }

  /// Makes and adds recordings of ten bytes each, oldest first.
  static void Keep(FilesManager& catalogue, std::vector<std::string> const& names) {
    for (auto const& name : names) MakeRecording(name, 10);
    Add(catalogue, names);
  }

  // What statvfs(3) tells of the card.
  std::int64_t totalBytes = 1 << 20;
  std::int64_t freeBytes = 1 << 20;
  Disk card;

 private:
  static Disk NewCard() {
    Disk disk = FakeCard::MakeDisk();  // there is no such device
    disk.available = true;
    return disk;
  }
};
