// Uses libQuellon alone, which needs libTarvik itself.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FileUtils/File.h"

int main() {
  std::string path = "/nowhere/rec_1.gps";
  bool const works = Quellon::FileUtils::Ifile(path, false).name == "rec_1.gps";
  std::puts(works ? "works" : "fails");
  return works ? EXIT_SUCCESS : EXIT_FAILURE;
}
