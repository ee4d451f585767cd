// A card as it was bought is made one that can be used.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "CardWork.h"
#include "DiskUtils/CardPreparation.h"
#include "Interruption.h"
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
    case PreparationResult::Exchanged:
      return "put the right card in; quellon card prepare, once more";
    case PreparationResult::CommandMissing:
      return "put sfdisk, mkfs.ext4 and fsck.ext4 on the device";
    default:
      return "run it as root; dmesg";
  }
}

// What has lost its table or its beginning looks empty to others.
char const* RemedyForRecordings() {
  using enum DiskUtils::CardContents::Kind;
  DiskUtils::CardContents card;
  if (CardPreparation::Look(card) == PreparationResult::Done) {
    if (card.whole == LostExt) {
      return "have its partition table restored; or give up what it holds: quellon card prepare "
             "--erase";
    }
    if (std::ranges::count(card.partitions, LostExt) > 0) {
      return "quellon card check --repair; or give up what it holds: quellon card prepare --erase";
    }
  }
  return "copy them; quellon card prepare --erase";
}

Status Tell(PreparationResult result) {
  int const error = errno;
  std::string const what = CardPreparation::Describe(result);
  if (result == PreparationResult::MayHoldRecordings) return Refuse(what, RemedyForRecordings());
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
  Interruption const interruption;  // it is done in seconds
  KicksMeanwhile const kicks;
  using Permission = CardPreparation::Permission;
  return Tell(CardPreparation::Prepare(
      erases ? Permission::EraseRecordings : Permission::KeepRecordings,
      [](char const* step) { std::cout << Line("step", step) << std::flush; }));
}

}  // namespace Quellon::Tool
