// The identity of an SD card, as the kernel tells it.
#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace Quellon::DiskUtils {

/// Reads a card's identity from sysfs ("/sys/block/DEVICE/"). A property that cannot be read is
/// reported on standard output and left empty, and a size 0: both mean "unknown".
class QUELLON_EXPORT SDCardInfo {
 public:
  /// The texts are the first word of their sysfs file.
  struct SDCardInfoData {
    // Binary interface: these fields keep their order.
    std::string cid;         ///< card identification, 32 hexadecimal digits
    std::string csd;         ///< card-specific data, 32 hexadecimal digits
    std::string serial;      ///< serial number
    std::string oemid;       ///< OEM and application id
    std::string manfid;      ///< manufacturer id
    std::string name;        ///< product name
    std::string ro;          ///< the kernel's read-only flag, "0" or "1"
    std::uint64_t size = 0;  ///< bytes
  };

  /// Reads all properties of the block device named `device`, such as "mmcblk1". Never throws for
  /// a missing card.
  explicit SDCardInfo(std::string device);

  SDCardInfoData data;  ///< as it was when this object was made
};

/// The properties by their short name.
using SDCardInfoData = SDCardInfo::SDCardInfoData;

}  // namespace Quellon::DiskUtils
