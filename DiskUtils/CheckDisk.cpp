#include "DiskUtils/CheckDisk.h"

#include <chrono>
#include <thread>

#include "base/internal/OutputLine.h"
#include "base/internal/Retry.h"
#include "base/internal/Shell.h"

namespace Quellon::DiskUtils {

namespace {

using std::chrono::seconds;
using Tarvik::OutputLine;

std::string TextOf(char const* text) {
  return text == nullptr ? "" : text;
}

int Run(std::string const& command) {
  return Tarvik::ExitStatusByte(Tarvik::RunCommand(command.c_str()));
}

bool Succeeds(std::string const& command) {
  return Tarvik::Retry(4, seconds(1), [&] { return Run(command) == 0; }) != 0;
}

// What fsck(8) says with its exit code. Sums of several codes have no line of their own.
void PrintCheckResult(int code) {
  char const* const result = code == 0     ? "No errors"
                             : code == 1   ? "File system errors corrected"
                             : code == 2   ? "System should be rebooted"
                             : code == 4   ? "File system errors left uncorrected"
                             : code == 8   ? "Operational error"
                             : code == 16  ? "Usage or syntax error"
                             : code == 32  ? "Fsck canceled by user request"
                             : code == 128 ? "Shared library error"
                                           : nullptr;
  if (result != nullptr) OutputLine() << "FSCK output: " << result;
}

void AnnounceReboot() {
  OutputLine() << "fcsk requested system reboot...";
  OutputLine() << "===================================>>> REBOOT ";
  std::this_thread::sleep_for(seconds(3));
}

}  // namespace

CheckDisk::CheckDisk(char* mountDirectory, char* device)
    : mountPoint(TextOf(mountDirectory)), devicePath(TextOf(device)) {}

CheckDisk::CheckDisk(int /*unused*/, char* mountDirectory, char* device)
    : CheckDisk(mountDirectory, device) {}

CheckDisk::~CheckDisk() = default;

void CheckDisk::UnMount() {
  bool const unmounted = Succeeds("umount " + mountPoint);
  OutputLine() << (unmounted ? "Unmount SD card success." : "Unmount SD card FAILED.");
}

void CheckDisk::Mount() {
  bool const mounted =
      Succeeds("mount -o noatime,nodiratime,data=writeback " + devicePath + " " + mountPoint);
  OutputLine() << (mounted ? "Mount SD card success" : "Mount SD card FAILED.");
}

int CheckDisk::DiskCheck() {
  UnMount();
  int const code = Run("fsck -f -y " + devicePath);
  PrintCheckResult(code);
  if (code == 2) AnnounceReboot();
  Mount();
  return code;
}

}  // namespace Quellon::DiskUtils
