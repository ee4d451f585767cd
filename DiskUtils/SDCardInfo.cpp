#include "DiskUtils/SDCardInfo.h"

#include "DiskUtils/internal/SysFs.h"

namespace Quellon::DiskUtils {

SDCardInfo::SDCardInfo(std::string device) {
  std::string const base = "/sys/block/" + device + "/";
  data.cid = SysFs::ReadWord(base + "device/cid");
  data.csd = SysFs::ReadWord(base + "device/csd");
  data.serial = SysFs::ReadWord(base + "device/serial");
  data.manfid = SysFs::ReadWord(base + "device/manfid");
  data.oemid = SysFs::ReadWord(base + "device/oemid");
  data.name = SysFs::ReadWord(base + "device/name");
  data.ro = SysFs::ReadWord(base + "ro");
  data.size = SysFs::SectorsToBytes(SysFs::ReadWord(base + "size"));
}

}  // namespace Quellon::DiskUtils
