// The slot of the device's one card.
#pragma once

namespace Quellon::DiskUtils {

inline constexpr char const* kCardMountPoint = "/mnt/sdcard/";
inline constexpr char const* kCardPartition = "/dev/mmcblk1p1";
inline constexpr char const* kCardDevice = "mmcblk1";

}  // namespace Quellon::DiskUtils
