// Small files of the kernel and of the device, and values as people read them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace Quellon::Tool {

/// Whether there is something at `path`.
bool Exists(std::string const& path);

/// What a file holds, `limit` bytes of it at most; nothing, with `errno`, when it cannot be read.
std::optional<std::string> ReadFile(std::string const& path, std::size_t limit = 4096);
/// The first line of a file.
std::optional<std::string> ReadLine(std::string const& path);
/// The number that a file begins with, decimal, or hexadecimal after "0x".
std::optional<long long> ReadNumber(std::string const& path);

/// Where a link leads; empty when that cannot be read.
std::string ReadLink(std::string const& path);

/// Where a path leads by way of links, as the kernel shows it of what is open or mounted. What does
/// not exist is taken for a name in its folder.
std::string Resolve(std::string const& path);

/// The names of what a folder holds, but for itself and its parent; nothing, with `errno`, where it
/// cannot be read to its end. It is no longer open then, which would keep it from being unmounted.
std::optional<std::vector<std::string>> NamesIn(std::string const& folder);

/// Bytes of the file system that holds `path`.
struct Space {
  double total;
  double free;
};
/// Nothing, with `errno`, where it cannot be measured.
std::optional<Space> SpaceOf(std::string const& path);

/// A time in local time, such as "2026-11-22 12:00:00".
std::string ShowTime(std::time_t seconds);
/// Such as "3 d 4 h", "2 h 5 min", "1 min 30 s" or "12 s"; of a negative one, the same with a sign.
std::string ShowDuration(long long seconds);
/// Such as "29.7 GiB".
std::string ShowBytes(double bytes);
/// Such as "12.5 %".
std::string ShowShare(double part, double whole);

}  // namespace Quellon::Tool
