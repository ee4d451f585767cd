// The card's properties in sysfs.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <locale>
#include <sstream>

#include "DiskUtils/Disk.h"

namespace Quellon::DiskUtils {

namespace {

constexpr int kSectorShift = 9;  // the kernel counts sectors of 512 bytes, whatever the card's own

}  // namespace

std::string Disk::readSysFSProperty(std::string path) {
  if (access(path.c_str(), R_OK) != 0) {
    std::cout << "ERR: [" << path << "] does not exist !" << std::endl;
    return {};
  }
  std::string word;
  std::ifstream(path) >> word;
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
  std::cout << " Disk info:" << std::endl;
  std::cout << " CID " << sdCardInfo.cid << std::endl;
  std::cout << " CSD " << sdCardInfo.csd << std::endl;
  std::cout << " Manfield " << sdCardInfo.manfid << std::endl;
  std::cout << " Name " << sdCardInfo.name << std::endl;
  std::cout << " OemId " << sdCardInfo.oemid << std::endl;
  std::cout << " RO " << sdCardInfo.ro << std::endl;
  std::cout << " Serial " << sdCardInfo.serial << std::endl;
  std::cout << " Size " << sdCardInfo.size << std::endl;
}

}  // namespace Quellon::DiskUtils
