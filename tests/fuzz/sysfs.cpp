// A property is the first word of its file, and any word converts to a number.
#include <sstream>

#include "DiskUtils/Disk.h"
#include "tests/fuzz/Target.h"
#include "tests/machine/Machine.h"

using Quellon::DiskUtils::Disk;

namespace {

std::string FirstWord(std::string const& text) {
  std::istringstream stream(text);
  std::string word;
  stream >> word;
  return word;
}

}  // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  constexpr char const* kProperty = "/sys/class/block/mmcblk1/size";
  std::string const text(Fuzz::Text(data, size));
  Machine::Reset();
  Machine::MakeFile(kProperty, text);
  std::string const word = Disk::readSysFSProperty(kProperty);
  Fuzz::Require(word == FirstWord(text), "the first word");
  unsigned long long const number = Disk::StringToULong(word);
  Fuzz::Require(Disk::StringToULong(Disk::ULongToString(number)) == number || (number >> 63U) != 0,
                "numbers survive their text");
  Fuzz::Require(Disk::getSDCardTotalSize("mmcblk1") == number << 9U, "sectors of 512 bytes");
  return 0;
}
