// The card's properties in sysfs.
#include <string>

#include "DiskUtils/Disk.h"
#include "DiskUtils/internal/SysFs.h"
#include "base/internal/OutputLine.h"

namespace Quellon::DiskUtils {

using Tarvik::OutputLine;

std::string Disk::readSysFSProperty(std::string path) {
  return SysFs::ReadWord(path);
}

unsigned long long Disk::StringToULong(std::string text) {
  return SysFs::ToNumber(text);
}

std::string Disk::ULongToString(unsigned long long value) {
  return std::to_string(value);
}

unsigned long long Disk::getSDCardLifetimeWrites(std::string partition) {
  return SysFs::ToNumber(SysFs::ReadWord("/sys/fs/ext4/" + partition + "/lifetime_write_kbytes"));
}

bool Disk::getSDCardReadOnlyFlag(std::string device) {
  return SysFs::ToNumber(SysFs::ReadWord("/sys/class/block/" + device + "/ro")) != 0;
}

unsigned long long Disk::getSDCardTotalSize(std::string device) {
  return SysFs::SectorsToBytes(SysFs::ReadWord("/sys/class/block/" + device + "/size"));
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
