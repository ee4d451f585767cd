// The order in which a directory names what it holds, which is the file system's own.
#pragma once

#include <dirent.h>

#include <string>
#include <vector>

#include "base/internal/UniqueDir.h"

/// The names of all entries of a directory of the device, "." and ".." among them.
inline std::vector<std::string> DirectoryOrder(std::string const& path) {
  std::vector<std::string> names;
  Tarvik::UniqueDir const directory(opendir(path.c_str()));
  while (dirent const* entry = readdir(directory.get())) names.emplace_back(entry->d_name);
  return names;
}
