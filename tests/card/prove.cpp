// The proof of a mounted card's capacity, on the command line.
//
//   prove DIRECTORY BYTES-TO-LEAVE all|samples [STOP]
//
// The last line is the report as JSON. With a fourth argument it prints "written" when half is
// done, which is all of the writing, and waits for a line of standard input.
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include "DiskUtils/CapacityProof.h"
#include "tests/card/PrivateRoot.h"

namespace {

using Quellon::DiskUtils::CapacityProof;

bool Wait(std::uint64_t done, std::uint64_t all) {
  if (done != all / 2) return true;
  std::cout << "written" << std::endl;
  std::string ignored;
  return static_cast<bool>(std::getline(std::cin, ignored));
}

std::string Text(std::optional<std::uint64_t> const& position) {
  return position ? std::to_string(*position) : "null";
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 2;
  CardTests::RequirePrivateRoot();
  CapacityProof const proof(arguments[1], std::strtoull(arguments[2], nullptr, 10));
  auto const progress = count > 4 ? CapacityProof::Progress(Wait) : nullptr;
  bool const isAll = std::string(arguments[3]) == "all";
  auto const report = isAll ? proof.ProveAll(progress) : proof.ProveSamples(progress);
  std::cout << R"({"result": ")" << CapacityProof::Describe(report.result) << R"(", "error": )"
            << report.error << R"(, "room": )" << report.roomBytes << R"(, "written": )"
            << report.writtenBytes << R"(, "proved": )" << report.provedBytes << R"(, "wrong": )"
            << report.wrongBytes << R"(, "first": )" << Text(report.firstWrong) << R"(, "origin": )"
            << Text(report.origin) << R"(, "written/s": )" << report.writtenPerSecond
            << R"(, "read/s": )" << report.readPerSecond << "}" << std::endl;
  return EXIT_SUCCESS;
}
