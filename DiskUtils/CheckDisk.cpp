#include "DiskUtils/CheckDisk.h"

#include <chrono>
#include <thread>

#include "base/internal/OutputLine.h"
#include "base/internal/Retry.h"
#include "base/internal/Shell.h"

namespace Quellon::DiskUtils {

namespace {

constexpr int kCommandAttempts = 4;
constexpr std::chrono::seconds kCommandPause(1);
constexpr std::chrono::seconds kRebootNoticePause(3);
using Tarvik::OutputLine;

std::string TextOf(char const* text) {
  return text == nullptr ? "" : text;
}

int Run(std::string const& command) {
  return Tarvik::ExitStatusByte(Tarvik::RunCommand(command.c_str()));
}

bool Succeeds(std::string const& command) {
  return Tarvik::Retry(kCommandAttempts, kCommandPause, [&] { return Run(command) == 0; }) != 0;
}

constexpr int kRebootCode = 2;

// What fsck(8) says with its exit code. Sums of several codes have no line of their own.
constexpr struct {
  int code;
  char const* text;
} kCheckResults[] = {{0, "No errors"},
                     {1, "File system errors corrected"},
                     {kRebootCode, "System should be rebooted"},
                     {4, "File system errors left uncorrected"},
                     {8, "Operational error"},
                     {16, "Usage or syntax error"},
                     {32, "Fsck canceled by user request"},
                     {128, "Shared library error"}};

void PrintCheckResult(int code) {
  for (auto const& result : kCheckResults) {
    if (result.code == code) OutputLine() << "FSCK output: " << result.text;
  }
}

void AnnounceReboot() {
  OutputLine() << "fcsk requested system reboot...";
  OutputLine() << "===================================>>> REBOOT ";
  std::this_thread::sleep_for(kRebootNoticePause);
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
  if (code == kRebootCode) AnnounceReboot();
  Mount();
  return code;
}

}  // namespace Quellon::DiskUtils
