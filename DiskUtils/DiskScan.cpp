// The scan of the card, and making a new file system on it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <fstream>
#include <stdexcept>

#include "DiskUtils/Disk.h"
#include "base/IException.h"
#include "base/internal/ByteFile.h"
#include "base/internal/OutputLine.h"
#include "base/internal/Shell.h"

namespace Quellon::DiskUtils {

using Tarvik::IException;
using Tarvik::OutputLine;

namespace {

bool IsRegularFile(std::string const& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsMissing(std::string const& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

// Anybody may have written the card: the test file must not go where a link leads, to a device, or
// into a pipe, where it would wait for a reader. Such a thing is removed if possible.
bool CanTakeAFile(std::string const& path) {
  if (IsMissing(path) || IsRegularFile(path)) return true;
  unlink(path.c_str());
  return IsMissing(path);
}

}  // namespace

void Disk::ScanDisk() {
  RequireAvailable();
  available = false;

  std::string const testFile = mountPoint + "check.tmp";
  bool const written = WriteTestFile(testFile);
  Status().fsckStatus = DiskCheck();
  if (!CheckDeviceStatus()) throw IException("Disk not present");
  if (!written || !IsRegularFile(testFile)) {
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

// False if the file could not be opened; ScanDisk refuses the card for that after the check.
bool Disk::WriteTestFile(std::string const& path) {
  if (!CanTakeAFile(path)) return false;
  try {
    Tarvik::ByteFile<std::ofstream> file(path, std::ios::trunc);
    if (!file.is_open()) return false;
    file << "velmor" << std::flush;
    file.close();
    sync();
    return true;
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
    OutputLine() << "Try format partition: " << command;
    if (Tarvik::RunCommand(command.c_str()) < 0) throw std::runtime_error("Unable to format");
    OutputLine() << "Done format partition " << devicePath << " ext4";
    Mount();
    return true;
  } catch (std::exception const& e) {
    OutputLine() << "ERROR: " << e.what();
    return false;
  }
}

bool Disk::testSDCardReadOnlySlow(std::string /*device*/) {
  return false;
}

}  // namespace Quellon::DiskUtils
