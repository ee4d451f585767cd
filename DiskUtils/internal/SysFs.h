// Properties of devices, as the kernel tells them in sysfs.
#pragma once

#include <string>

namespace Quellon::DiskUtils::SysFs {

/// The first word of a file; empty, with a line on standard output, when it is not readable.
std::string ReadWord(std::string const& path);

/// The base-10 number that `text` begins with, as its unsigned 64-bit pattern; 0 if there is none.
unsigned long long ToNumber(std::string const& text);

/// Bytes of a number of sectors, which have 512 of them in sysfs, whatever the card's own have.
unsigned long long SectorsToBytes(std::string const& sectors);

}  // namespace Quellon::DiskUtils::SysFs
