#include "SysUtil/Util.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "base/UniqueFd.h"
#include "base/internal/ByteFile.h"
#include "base/internal/OpenFile.h"
#include "base/internal/OutputLine.h"
#include "base/internal/Restart.h"
#include "base/internal/Retry.h"
#include "base/internal/Shell.h"
#include "base/internal/UniqueDir.h"

namespace Quellon::SysUtil {

using Tarvik::OutputLine;

namespace {

constexpr int kCacheAttempts = 4;
constexpr std::chrono::milliseconds kCachePause(100);

struct PipeCloser {
  void operator()(FILE* pipe) const noexcept { pclose(pipe); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

std::string FirstLineOf(std::string const& path) {
  Tarvik::ByteFile<std::ifstream> file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// A command line holds its arguments one after the other, each ended by a NUL.
std::string ProgramName(std::string const& commandLine) {
  std::string const program = commandLine.substr(0, commandLine.find('\0'));
  return program.substr(program.rfind('/') + 1);
}

bool ProcessMatches(std::string const& processId, std::string const& processName) {
  std::string const commandLine = FirstLineOf("/proc/" + processId + "/cmdline");
  return !commandLine.empty() && ProgramName(commandLine).find(processName) != std::string::npos;
}

// Reads the descriptor, as the pipe's stream would end at a signal and lose what it had read.
bool AppendPiece(std::string& output, int fd) {
  std::array<char, 1024> piece;
  ssize_t const length =
      Tarvik::RestartWhileInterrupted([&] { return read(fd, piece.data(), piece.size()); });
  if (length <= 0) return false;
  output.append(piece.data(), static_cast<std::size_t>(length));
  return true;
}

void RunForRamdisk(char const* command, char const* failureFormat) {
  int const status = Tarvik::RunCommand(command);
  if (status >= 0) return;
  std::printf(failureFormat, Tarvik::ExitStatusByte(status));
  static_cast<void>(std::fflush(stdout));
}

void DisplayOpenFilesOf(pid_t process) {
  std::string const id = std::to_string(process);
  std::string const command = "ls -l /proc/" + id + "/fd";
  OutputLine() << "Try run [" << command << "] on pipe";
  std::string const files = ExecSystemCmdThroughPipe(command);
  OutputLine() << "Open files on pid " << id << " :";
  OutputLine() << files;
}

}  // namespace

bool ClearCache() {
  constexpr char kAllCaches = '3';
  Tarvik::UniqueFd const control(Tarvik::OpenFile("/proc/sys/vm/drop_caches", O_RDWR));
  if (!control.IsOpen()) return false;
  int const attempt = Tarvik::Retry(kCacheAttempts, kCachePause, [&] {
    return write(control.Get(), &kAllCaches, sizeof kAllCaches) == 1;
  });
  return attempt >= 1 && attempt < kCacheAttempts;  // success at the last one is not counted
}

std::string ExecSystemCmdThroughPipe(std::string command) {
  UniquePipe const pipe(popen(command.c_str(), "r"));
  if (pipe == nullptr) return {};
  int const end = fileno(pipe.get());
  fcntl(end, F_SETFD, FD_CLOEXEC);
  std::string output;
  while (AppendPiece(output, end)) {
  }
  return output;
}

int GetProcIdByName(std::string processName) {
  Tarvik::UniqueDir const processes(opendir("/proc"));
  if (processes == nullptr) return -1;
  while (dirent const* entry = readdir(processes.get())) {
    long const id = std::strtol(entry->d_name, nullptr, 10);
    if (id > 0 && ProcessMatches(entry->d_name, processName)) return static_cast<int>(id);
  }
  return -1;
}

void MountRamdisk() {
  RunForRamdisk("umount /mnt/ramdisk", "Ramdisk umount error: %d\n");
  RunForRamdisk("mount -t tmpfs -o noatime,nosuid,nodev,mode=1777,size=192M tmpfs /mnt/ramdisk",
                "Ramdisk mount error: %d\n");
}

void DisplayOpenFiles() {
  DisplayOpenFilesOf(getpid());
  DisplayOpenFilesOf(getppid());
}

}  // namespace Quellon::SysUtil
