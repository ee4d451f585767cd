// Any text reaches the log whole, between a header and the end of the line, and the next line is
// not disturbed.
#include "base/Logger.h"
#include "tests/fuzz/Target.h"
#include "tests/support/Capture.h"
#include "tests/support/LogFile.h"

using Tarvik::Ilog::LogLine;
using Tarvik::Ilog::LogType;

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::string const text(Fuzz::Text(data + 1, size - 1));
  auto const type = static_cast<LogType>(data[0]);
  std::string const tag = type == 1 ? "[WARNING]" : type == 2 ? "[ERROR]" : "";
  Machine::Reset();
  Machine::hooks().now = 0;
  LogFile::Enable(false, true);

  std::string const log = Capture::Output([&] {
    LogLine(type) << text;
    LogLine(Tarvik::Ilog::Info) << "next";
  });

  Fuzz::Require(log.size() == 2 * LogFile::kHeaderLength + tag.size() + text.size() + 6,
                "two lines");
  Fuzz::Require(
      log.substr(LogFile::kHeaderLength, tag.size() + text.size() + 1) == tag + text + "\n",
      "the text as it was written");
  Fuzz::Require(log.ends_with("]next\n"), "the next line");
  return 0;
}
