#include "DiskUtils/SDCardInfo.h"

#include "DiskUtils/Disk.h"

namespace Quellon::DiskUtils {

SDCardInfo::SDCardInfo(std::string device) {
  std::string const base = "/sys/block/" + device + "/";
  data.cid = Disk::readSysFSProperty(base + "device/cid");
  data.csd = Disk::readSysFSProperty(base + "device/csd");
  data.serial = Disk::readSysFSProperty(base + "device/serial");
  data.manfid = Disk::readSysFSProperty(base + "device/manfid");
  data.oemid = Disk::readSysFSProperty(base + "device/oemid");
  data.name = Disk::readSysFSProperty(base + "device/name");
  data.ro = Disk::readSysFSProperty(base + "ro");
  data.size = Disk::SectorsToBytes(Disk::readSysFSProperty(base + "size"));
}

}  // namespace Quellon::DiskUtils
