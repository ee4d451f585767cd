// Files as applications have them.
#pragma once

#include <memory>
#include <string>

#include "FileUtils/File.h"

/// The object of a file that need not exist.
inline std::unique_ptr<Quellon::FileUtils::Ifile> FileAt(std::string path, bool open = false) {
  return std::make_unique<Quellon::FileUtils::Ifile>(path, open);
}
