// A card as it was bought is made one that can be used.
#include <cerrno>
#include <cstring>
#include <iostream>

#include "CardWork.h"
#include "DiskUtils/CardPreparation.h"
#include "Kicks.h"
#include "Refusal.h"
#include "Report.h"

namespace Quellon::Tool {

namespace {

using DiskUtils::CardPreparation;
using PreparationResult = CardPreparation::Result;

char const* RemedyFor(PreparationResult result) {
  switch (result) {
    case PreparationResult::Missing:
      return "put a card in";
    case PreparationResult::WriteProtected:
      return "release its switch; without one it is worn out: replace it";
    case PreparationResult::NotPartitioned:
    case PreparationResult::NotFormatted:
    case PreparationResult::NotMounted:
      return "dmesg; once more; replace the card if it comes again";
    case PreparationResult::CheckFailed:
    case PreparationResult::NotKept:
      return "replace the card";
    default:
      return "run it as root; dmesg";
  }
}

Status Tell(PreparationResult result) {
  int const error = errno;
  std::string const what = CardPreparation::Describe(result);
  if (result == PreparationResult::MayHoldRecordings) {
    return Refuse(what, "copy them; quellon card prepare --erase");
  }
  if (result == PreparationResult::InUse) return Refuse(what, "lsblk /dev/mmcblk1; unmount it");
  Report report;
  if (result == PreparationResult::Done) {
    report.Tell("verdict", what);
    report.Tell("next", "quellon card prove --samples, or start the service");
  } else {
    report.Complain(result == PreparationResult::Failed ? what + ": " + std::strerror(error) : what,
                    RemedyFor(result));
  }
  return Print(report);
}

}  // namespace

Status PrepareCard(Arguments arguments) {
  bool const erases = Take(arguments, "--erase");
  if (!arguments.empty()) return ComplainOfUsage("card");
  if (auto const refused = RefuseWhileCardIsUsed("its contents would go")) return *refused;
  KicksMeanwhile const kicks;
  using Permission = CardPreparation::Permission;
  return Tell(CardPreparation::Prepare(
      erases ? Permission::EraseRecordings : Permission::KeepRecordings,
      [](char const* step) { std::cout << Line("step", step) << std::flush; }));
}

}  // namespace Quellon::Tool
