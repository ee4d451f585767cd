// Properties of devices, as the kernel tells them in sysfs.
#pragma once

#include <string>

namespace Quellon::DiskUtils::SysFs {

/// The first word of a file; empty, with a line on standard output, when it is not readable.
std::string ReadWord(std::string const& path);

/// The decimal number that `text` begins with, a negative one modulo 2^64; 0 if there is none.
unsigned long long ToNumber(std::string const& text);

/// Sectors as bytes. In sysfs a sector has 512 bytes, whatever the card's own size of sectors.
unsigned long long SectorsToBytes(std::string const& sectors);

}  // namespace Quellon::DiskUtils::SysFs
