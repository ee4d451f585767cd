// The count of reboots that a failing card has caused, kept across them.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <exception>
#include <fstream>
#include <string>

#include "DiskUtils/System.h"
#include "base/IException.h"
#include "base/Json.h"
#include "base/internal/ByteFile.h"
#include "base/internal/OutputLine.h"

namespace Quellon {

namespace Json = Tarvik::Json;
using Tarvik::ByteFile;
using Tarvik::OutputLine;

namespace {

constexpr char const* kCounterFile = "/root/system.dat";
constexpr char const* kCounterKey = "sdcard-status-conter";  // misspelt on devices in the field
constexpr char const* kCannotBeOpen = "sdcard status file cannot be open";
// A damaged file must not use up the board's memory. A longer text is cut, and no JSON then.
constexpr std::size_t kLongestText = 65536;

// Opening a pipe would block, and a device such as /dev/null would not keep the count.
bool MayBeOpened() {
  struct stat status {};
  return stat(kCounterFile, &status) != 0 || S_ISREG(status.st_mode);
}

std::string ReadCounterFile() {
  if (!MayBeOpened()) throw Tarvik::IException(kCannotBeOpen);
  // Opened to append as well, which makes the file when it is missing.
  ByteFile<std::ifstream> file(kCounterFile, std::ios::in | std::ios::app);
  if (!file.is_open()) throw Tarvik::IException(kCannotBeOpen);
  file.exceptions(std::ios::badbit);  // a count that cannot be read must not pass for 0
  std::string text;
  for (char next; text.size() < kLongestText && file.get(next);) {
    if (next != '\n') text += next;
  }
  return text;
}

bool RemoveCounterFile() {
  OutputLine() << "Remove sdcard status file";
  if (access(kCounterFile, F_OK) != 0 || unlink(kCounterFile) == 0) return true;
  OutputLine() << "Unable to remove sd card status file";
  return false;
}

}  // namespace

int System::ReadSDCardStatusCounter() {
  try {
    std::string const text = ReadCounterFile();
    if (text.empty()) return 0;
    Json::Value const value = Json::Deserialize(text);
    if (!value.IsObject()) return 0;
    Json::Object object = value.ToObject();
    return object.HasKey(kCounterKey) ? static_cast<int>(object[kCounterKey]) : 0;
  } catch (std::exception const&) {
    return -1;
  }
}

bool System::SaveSDCardStatusCounter(int counter) {
  if (counter <= 0) return RemoveCounterFile();
  OutputLine() << "Save sdcard status counter " << counter << " to file";
  if (!MayBeOpened()) return true;
  try {
    ByteFile<std::ofstream> file(kCounterFile, std::ios::trunc);
    // True all the same: a system that cannot save must still reboot for its card.
    if (!file.is_open()) return true;
    // On a full disk the count would be lost, and the reboots without end.
    file.exceptions(std::ios::failbit | std::ios::badbit);
    Json::Object object;
    object[kCounterKey] = counter;
    file << Json::Serialize(object);
    file.close();
    sync();
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

}  // namespace Quellon
