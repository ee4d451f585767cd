#include "FileUtils/Dir.h"

#include <sys/stat.h>

#include "base/internal/UniqueDir.h"

namespace Quellon::FileUtils {

Idir::Idir(std::string const& directory) : path(directory) {
  moduleName = "Quellon::FileUtils";
  className = "Idir";
  exists = Idir::CheckIfExists();
}

Idir::~Idir() = default;

bool Idir::CheckIfExists() {
  return Tarvik::UniqueDir(opendir(path.c_str())) != nullptr;
}

bool Idir::Create() {
  constexpr mode_t kMode = 0775;
  ResetError();
  if (exists || mkdir(path.c_str(), kMode) == 0) return true;
  SetError("unable to create directory: " + path, "Create", true, true);
  return false;
}

}  // namespace Quellon::FileUtils
