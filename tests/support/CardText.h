// What the library runs and prints for the one card of the device.
#pragma once

#include <string>

namespace CardText {

// Its commands and mount(2), as the trace tells them.
inline constexpr char const* kUmount = "system umount /mnt/sdcard/";
inline constexpr char const* kFsck = "system fsck -f -y /dev/mmcblk1p1";
inline constexpr char const* kMount =
    "system mount -o noatime,nodiratime,data=writeback /dev/mmcblk1p1 /mnt/sdcard/";
inline constexpr char const* kMountCall =
    "mount /dev/mmcblk1p1 /mnt/sdcard/ ext4 3080 data=writeback";

/// What a check prints that finds nothing.
inline std::string const kChecked =
    "Unmount SD card success.\nFSCK output: No errors\nMount SD card success\n";

// The first and the last line of a report, and the whole one of a card that is not in service.
inline std::string const kTitle =
    "============================ SD CARD =============================\n";
inline std::string const kRule = std::string(66, '=') + "\n";
inline std::string const kNoCard = kTitle + "NOT PRESENT\n" + kRule;

}  // namespace CardText
