// Any command line is searched for any name without harm. The input is both, a newline between.
#include "SysUtil/Util.h"
#include "tests/fuzz/Target.h"
#include "tests/machine/Machine.h"

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const input = Fuzz::Text(data, size);
  std::size_t const end = std::min(input.find('\n'), input.size());
  std::string const wanted(input.substr(0, end));
  std::string const commandLine(input.substr(std::min(end + 1, input.size())));
  Machine::Reset();
  Machine::MakeFile("/proc/17/cmdline", commandLine);
  Machine::MakeFile("/proc/self/cmdline", "self");

  int const found = Quellon::SysUtil::GetProcIdByName(wanted);

  std::string const line = commandLine.substr(0, commandLine.find('\n'));
  std::string const program = line.substr(0, line.find('\0'));
  bool const matches =
      !line.empty() && program.substr(program.rfind('/') + 1).find(wanted) != std::string::npos;
  Fuzz::Require(found == (matches ? 17 : -1), "found exactly when the program's name contains it");
  return 0;
}
