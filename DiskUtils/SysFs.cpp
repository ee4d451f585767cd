#include "DiskUtils/internal/SysFs.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "base/internal/ByteFile.h"
#include "base/internal/OutputLine.h"

namespace Quellon::DiskUtils::SysFs {

std::string ReadWord(std::string const& path) {
  if (access(path.c_str(), R_OK) != 0) {
    Tarvik::OutputLine() << "ERR: [" << path << "] does not exist !";
    return {};
  }
  std::string word;
  Tarvik::ByteFile<std::ifstream>(path) >> word;
  return word;
}

unsigned long long ToNumber(std::string const& text) {
  return static_cast<unsigned long long>(std::strtoll(text.c_str(), nullptr, 10));
}

unsigned long long SectorsToBytes(std::string const& sectors) {
  constexpr int kSectorShift = 9;
  return ToNumber(sectors) << kSectorShift;
}

}  // namespace Quellon::DiskUtils::SysFs
