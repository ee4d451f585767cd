// The card's properties in sysfs.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <locale>
#include <sstream>

#include "DiskUtils/Disk.h"
#include "base/internal/ByteFile.h"
#include "base/internal/OutputLine.h"

namespace Quellon::DiskUtils {

using Tarvik::OutputLine;

namespace {

constexpr int kSectorShift = 9;  // the kernel counts sectors of 512 bytes, whatever the card's own

}  // namespace

std::string Disk::readSysFSProperty(std::string path) {
  if (access(path.c_str(), R_OK) != 0) {
    OutputLine() << "ERR: [" << path << "] does not exist !";
    return {};
  }
  std::string word;
  Tarvik::ByteFile<std::ifstream>(path) >> word;
  return word;
}

unsigned long long Disk::StringToULong(std::string text) {
  return static_cast<unsigned long long>(std::strtoll(text.c_str(), nullptr, 10));
}

std::string Disk::ULongToString(unsigned long long value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());  // whatever the application chose for its own texts
  text << value;
  return text.str();
}

unsigned long long Disk::SectorsToBytes(std::string const& sectors) {
  return StringToULong(sectors) << kSectorShift;
}

unsigned long long Disk::getSDCardLifetimeWrites(std::string partition) {
  return StringToULong(readSysFSProperty("/sys/fs/ext4/" + partition + "/lifetime_write_kbytes"));
}

bool Disk::getSDCardReadOnlyFlag(std::string device) {
  return StringToULong(readSysFSProperty("/sys/class/block/" + device + "/ro")) != 0;
}

unsigned long long Disk::getSDCardTotalSize(std::string device) {
  return SectorsToBytes(readSysFSProperty("/sys/class/block/" + device + "/size"));
}

void Disk::PrintInfo() {
  OutputLine() << " Disk info:";
  OutputLine() << " CID " << sdCardInfo.cid;
  OutputLine() << " CSD " << sdCardInfo.csd;
  OutputLine() << " Manfield " << sdCardInfo.manfid;
  OutputLine() << " Name " << sdCardInfo.name;
  OutputLine() << " OemId " << sdCardInfo.oemid;
  OutputLine() << " RO " << sdCardInfo.ro;
  OutputLine() << " Serial " << sdCardInfo.serial;
  OutputLine() << " Size " << sdCardInfo.size;
}

}  // namespace Quellon::DiskUtils
