// Proving the card, and making a new file system on it.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "DiskUtils/Disk.h"
#include "base/IException.h"

namespace Quellon::DiskUtils {

using Tarvik::IException;

namespace {

// A card's contents are anybody's: what is written must not go where a link leads, to a device, or
// into a pipe, where it would wait for a reader.
void RemoveUnlessRegular(std::string const& path) {
  struct stat status {};
  bool const known = lstat(path.c_str(), &status) == 0;
  if (known && !S_ISREG(status.st_mode)) unlink(path.c_str());
}

}  // namespace

void Disk::ScanDisk() {
  RequireAvailable();
  available = false;

  std::string const testFile = mountPoint + "check.tmp";
  WriteTestFile(testFile);
  Status().fsckStatus = DiskCheck();
  if (!CheckDeviceStatus()) throw IException("Disk not present");
  if (access(testFile.c_str(), F_OK) != 0) {
    Status().malfunction = 1;
    throw IException("disk malfunction");
  }
  unlink(testFile.c_str());
  if (Status().readOnly) throw IException("disk read only");

  available = true;
  LoadLifetimeWrites();
}

void Disk::RequireAvailable() {
  if (!available || !Status().present) throw IException("The device is not available");
}

// A file that cannot be opened is no failure here: it will be missed after the check.
void Disk::WriteTestFile(std::string const& path) {
  RemoveUnlessRegular(path);
  try {
    std::ofstream file(path, std::ios::trunc);
    if (!file.is_open()) return;
    file << "velmor" << std::flush;
    file.close();
    sync();
  } catch (...) {
    throw IException("Could not write test file");
  }
}

void Disk::LoadLifetimeWrites() {
  try {
    std::string const partition = devicePath.substr(devicePath.find_last_of("/\\") + 1);
    Status().lifetimeWritesKB = getSDCardLifetimeWrites(partition);
  } catch (...) {
    Status().lifetimeWritesKB = 0;
  }
}

bool Disk::Fromat(bool check) {
  try {
    RequireAvailable();
    Umount();
    // Without the bad-block scan two blanks are left before "-L"; they do no harm.
    std::string const command = std::string("mkfs.ext4 -v -F -O ^has_journal ") +
                                (check ? "-c" : "") + " -L storage " + devicePath;
    std::cout << "Try format partition: " << command << std::endl;
    if (std::system(command.c_str()) < 0) throw std::runtime_error("Unable to format");
    std::cout << "Done format partition " << devicePath << " ext4" << std::endl;
    Mount();
    return true;
  } catch (std::exception const& e) {
    std::cout << "ERROR: " << e.what() << std::endl;
    return false;
  }
}

bool Disk::testSDCardReadOnlySlow(std::string /*device*/) {
  return false;
}

}  // namespace Quellon::DiskUtils
