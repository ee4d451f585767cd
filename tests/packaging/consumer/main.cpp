// Uses a little of each installed library without touching the machine.
#include <cstdlib>
#include <iostream>
#include <string>

#include "FileUtils/File.h"
#include "base/IException.h"
#include "base/ISemaphore.h"
#include "base/Json.h"

namespace {

bool JsonComesBack() {
  std::string const text = R"({"a":[1,2.5,"x"],"b":null})";
  return Tarvik::Json::Serialize(Tarvik::Json::Deserialize(text)) == text;
}

bool ExceptionCrossesLibraries() {
  try {
    Tarvik::Json::Deserialize("{");
  } catch (Tarvik::IException const&) {
    return true;
  }
  return false;
}

bool SemaphoreCounts() {
  Tarvik::Interfaces::ISemaphore semaphore;
  semaphore.Notify();
  return semaphore.TryWait() && !semaphore.TryWait();
}

bool FileHasExtension() {
  std::string path = "/nowhere/rec_1.gps";
  return Quellon::FileUtils::Ifile(path, false).extension == "gps";
}

}  // namespace

int main() {
  bool const works =
      JsonComesBack() && ExceptionCrossesLibraries() && SemaphoreCounts() && FileHasExtension();
  std::cout << (works ? "works" : "fails") << std::endl;
  return works ? EXIT_SUCCESS : EXIT_FAILURE;
}
