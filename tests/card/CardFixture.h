// What the tests on a real card share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "DiskUtils/Disk.h"
#include "base/UniqueFd.h"
#include "tests/card/Card.h"

namespace CardTests {

/// What a program left behind.
struct ProgramResult {
  int exitCode = -1;
  std::string output;
};

/// Runs a command line to its end; `output` is its standard output.
ProgramResult RunProgram(std::string const& command);

/// The whole text of a file; empty when it cannot be read.
std::string TextOf(std::filesystem::path const& path);

/// Makes a recording of `bytes` random-looking bytes that are on the medium, last modified at
/// `modified` (seconds since the epoch), and its directory if need be.
void WriteRecording(std::filesystem::path const& path, std::uint64_t bytes, std::time_t modified);

/// The names of what a directory holds.
std::set<std::string> NamesIn(std::filesystem::path const& directory);

bool IsMounted(std::filesystem::path const& directory);

/// The lines of the table of mounts for that directory, which has no slash at its end.
std::vector<std::string> MountsOn(std::string const& directory);

/// A new file, kept open, so that its file system cannot be unmounted.
Tarvik::UniqueFd KeepBusy(std::string const& path);

/// One test with a slot for a card. The card is formatted but not inserted. Afterwards the private
/// root is as new: nothing mounted, no counter file, an empty status table, a writable root.
class CardTest : public testing::Test {
 protected:
  CardTest();
  ~CardTest() override;

  static constexpr char const* kMountPoint = "/mnt/sdcard/";
  static constexpr char const* kPartition = "/dev/mmcblk1p1";
  static constexpr char const* kDevice = "mmcblk1";

  static Quellon::DiskUtils::Disk MakeDisk() { return {kMountPoint, kPartition, kDevice}; }

  /// What a boot does before the main service starts: the root writable, no card mounted.
  static void Boot();

  Card card;
};

}  // namespace CardTests
