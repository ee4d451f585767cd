// The check of the card's file system.
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "CardWork.h"
#include "DiskUtils/internal/CardSlot.h"
#include "Interruption.h"
#include "Kicks.h"
#include "Reading.h"
#include "Refusal.h"
#include "Report.h"
#include "base/internal/Shell.h"

namespace Quellon::Tool {

namespace {

// Codes of fsck(8), which are sums of bits.
constexpr int kUncorrected = 4;
constexpr int kNotChecked = 8;
constexpr int kNotFound = 127;  // of the shell

int RunCheck(bool repairs) {
  std::string command = repairs ? "fsck -f -y " : "fsck -f -n ";
  if (isatty(STDOUT_FILENO) == 1) command += "-C0 ";
  int const status = Tarvik::RunCommand((command + DiskUtils::kCardPartition).c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : kNotChecked;
}

Report VerdictOf(int code, bool repairs) {
  Report report;
  if (code == kNotFound) {
    report.Complain("the card could not be checked", "put fsck and fsck.ext4 on the device");
  } else if (code >= kNotChecked) {
    report.Complain("the card could not be checked",
                    "see what the check printed; no ext4: quellon card prepare");
  } else if ((code & kUncorrected) != 0) {
    report.Complain("the file system has errors",
                    repairs ? "save the recordings, quellon card prepare --erase"
                            : "quellon card check --repair");
  } else {
    report.Tell("verdict", code == 0 ? "no errors" : "errors corrected");
  }
  return report;
}

}  // namespace

Status CheckCard(Arguments arguments) {
  bool const repairs = Take(arguments, "--repair");
  if (!arguments.empty()) return ComplainOfUsage("card");
  if (auto const refused = RefuseWhileCardIsUsed("it cannot be checked")) return *refused;
  if (auto const refused = RefuseWhileCardIsMounted()) return *refused;
  if (!Exists(DiskUtils::kCardPartition)) return RunCard({});
  Interruption const interruption;  // a check that corrects errors is not left in the middle
  KicksMeanwhile const kicks;
  return Print(VerdictOf(RunCheck(repairs), repairs));
}

}  // namespace Quellon::Tool
