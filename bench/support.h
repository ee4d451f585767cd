// What the benchmarks share: a folder in memory, the device's paths in it, and pauses that can be
// left out.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "DiskUtils/Disk.h"

namespace Bench {

/// Lets all calls pass on but for the log's. Programs begin so.
void PassOn();

/// A folder in memory of this program's own, which goes with it. Memory is the fastest medium there
/// is, so that what is measured is the code and not a disk. "/var/log/" leads here, for the library
/// under test as for its peers.
std::filesystem::path const& Folder();

/// While one exists, usleep(3) returns at once.
class WithoutPauses {
 public:
  WithoutPauses();
  WithoutPauses(WithoutPauses const&) = delete;
  WithoutPauses& operator=(WithoutPauses const&) = delete;
  ~WithoutPauses();
};

/// From now on it is the same second, where the clock can be stopped: a second that ends has the
/// next line's date formatted.
void StopClock();

/// Points a descriptor to a file, which is made or appended to.
void Redirect(int descriptor, std::filesystem::path const& file);

/// Makes `count` recordings below `directory`, a folder with nothing else in it: each modified
/// later than the one before, of `bytes` bytes that take no room. Returns their names, oldest
/// first.
std::vector<std::string> MakeRecordings(std::filesystem::path const& directory, std::size_t count,
                                        std::string const& extension = ".dat",
                                        std::size_t bytes = 0, long oldest = 1'500'000'000);

/// A card that may be used, whose space is that of the folder's file system.
Quellon::DiskUtils::Disk Card();

}  // namespace Bench
