#include "DiskUtils/Disk.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <exception>
#include <utility>

#include "DiskUtils/internal/ForceUnmount.h"
#include "base/IException.h"
#include "base/internal/OutputLine.h"

namespace Quellon::DiskUtils {

using Tarvik::IException;
using Tarvik::OutputLine;

namespace {

constexpr float kReserveRatio = 0.055F;
constexpr long long kBytesPerMegabyte = 1048576;

bool Exists(std::string const& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Takes the errno of the failed call first: making the exception allocates and may change it.
[[noreturn]] void ThrowErrno(char const* complaint) {
  int const error = errno;
  throw IException(complaint, error);
}

dev_t DeviceOf(std::string const& path, char const* complaint) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) ThrowErrno(complaint);
  return status.st_dev;
}

double WholeMegabytes(long long bytes) {
  long long const whole = bytes / kBytesPerMegabyte;
  return static_cast<double>(whole);
}

}  // namespace

std::map<std::string, Disk::DeviceStatus> Disk::deviceStatusList;

Disk::Disk(std::string mountDirectory, std::string partition, std::string device)
    : CheckDisk(mountDirectory.data(), partition.data()),
      reserveRatio(kReserveRatio),
      blockDevice(std::move(device)) {
  try {
    Acquire();
  } catch (std::exception const& e) {
    OutputLine() << "Disk exception " << e.what();
  }
}

Disk::~Disk() = default;

void Disk::Acquire() {
  if (Status().malfunction == 1) {
    throw IException("Disk malfunction status had been set to read-only");
  }
  if (!CheckDeviceStatus()) throw IException("Disk not found");
  LoadDiskInfo();
  if (!Status().readOnly) available = true;
  PrintSpace();
}

void Disk::PrintSpace() {
  OutputLine() << "Disk " << mountPoint << " free sapce " << WholeMegabytes(freeBytes) << "MB from "
               << WholeMegabytes(totalBytes) << "MB";
}

Disk::DeviceStatus& Disk::Status() {
  return deviceStatusList[mountPoint];
}

bool Disk::CheckDeviceStatus() {
  DeviceStatus& status = Status();
  status.present = false;
  if (!Exists("/dev/" + blockDevice)) return false;

  sdCardInfo = SDCardInfo(blockDevice).data;
  status.cid[sdCardInfo.cid.copy(status.cid, sizeof status.cid - 1)] = '\0';
  status.readOnly = StringToULong(sdCardInfo.ro) != 0;
  status.sizeBytes = sdCardInfo.size;
  if (!Exists(devicePath)) return false;

  status.present = true;
  if (CheckDiskPresence()) return true;
  Umount();
  Mount();
  return CheckDiskPresence();
}

bool Disk::CheckDiskPresence() {
  dev_t const device = DeviceOf(mountPoint, "Stat error (1)");
  return device != DeviceOf(mountPoint + "..", "Stat error (2)");
}

bool Disk::Mount() {
  constexpr unsigned long kFlags = MS_NOEXEC | MS_NOATIME | MS_NODIRATIME;
  return mount(devicePath.c_str(), mountPoint.c_str(), "ext4", kFlags, "data=writeback") >= 0;
}

bool Disk::Umount() {
  return umount(mountPoint.c_str()) == 0 ||
         ForceUnmount(mountPoint.c_str(), "Unable to umount SD") == 0;
}

void Disk::LoadDiskInfo() {
  struct statvfs space {};
  if (statvfs(mountPoint.c_str(), &space) != 0) ThrowErrno("Get space stat error");
  // Older kernels leave f_frsize, the unit of the counts, at 0; it is the block size then.
  auto const blockSize =
      static_cast<long long>(space.f_frsize != 0 ? space.f_frsize : space.f_bsize);
  totalBytes = static_cast<long long>(space.f_blocks) * blockSize;
  freeBytes = static_cast<long long>(space.f_bfree) * blockSize;
  reserveBytes = std::llround(static_cast<float>(totalBytes) * reserveRatio);
}

}  // namespace Quellon::DiskUtils
