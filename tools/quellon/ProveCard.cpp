// Whether the card holds as much as it says.
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "CardFacts.h"
#include "CardWork.h"
#include "Device.h"
#include "DiskUtils/CapacityProof.h"
#include "DiskUtils/internal/CardSlot.h"
#include "Kicks.h"
#include "Progress.h"
#include "Reading.h"
#include "Refusal.h"
#include "Report.h"
#include "base/internal/UniqueDir.h"

namespace Quellon::Tool {

namespace {

using DiskUtils::CapacityProof;
using DiskUtils::kCardMountPoint;
using Proof = CapacityProof::Report;
using ProofResult = CapacityProof::Result;

/// Mounts the card if it is not mounted, and unmounts it then at the end.
class MountedMeanwhile {
 public:
  MountedMeanwhile() {
    constexpr unsigned long kFlags = MS_NOEXEC | MS_NOATIME | MS_NODIRATIME;
    isOurs = !MountedCard() &&
             mount(DiskUtils::kCardPartition, kCardMountPoint, "ext4", kFlags, nullptr) == 0;
  }
  MountedMeanwhile(MountedMeanwhile const&) = delete;
  MountedMeanwhile& operator=(MountedMeanwhile const&) = delete;
  ~MountedMeanwhile() {
    if (isOurs) umount(kCardMountPoint);
  }

 private:
  bool isOurs;
};

bool HasRecordings() {
  Tarvik::UniqueDir const directory(opendir(kRecordings));
  while (dirent const* entry = directory == nullptr ? nullptr : readdir(directory.get())) {
    if (entry->d_name[0] != '.') return true;
  }
  return false;
}

Proof Prove(bool bySamples) {
  KicksMeanwhile const kicks;
  Progress progress("proved");
  auto const show = [&progress](std::uint64_t done, std::uint64_t all) {
    progress.Show(done, all);
    return true;
  };
  CapacityProof const proof(kCardMountPoint);
  return bySamples ? proof.ProveSamples(show) : proof.ProveAll(show);
}

void AddBytes(Report& report, char const* label, std::uint64_t bytes, char const* unit = "") {
  report.Tell(label, ShowBytes(static_cast<double>(bytes)) + unit);
}

void AddFindings(Report& report, Proof const& proof) {
  AddBytes(report, "room", proof.roomBytes);
  AddBytes(report, "written", proof.writtenBytes);
  AddBytes(report, "as written", proof.provedBytes);
  AddBytes(report, "wrong bytes", proof.wrongBytes);
  if (proof.firstWrong) AddBytes(report, "first wrong", *proof.firstWrong, " from the beginning");
  if (proof.origin) AddBytes(report, "belongs", *proof.origin, " from the beginning");
  AddBytes(report, "writes", proof.writtenPerSecond, "/s");
  AddBytes(report, "reads", proof.readPerSecond, "/s");
}

char const* RemedyFor(ProofResult result) {
  switch (result) {
    case ProofResult::Wrong:
      return "replace the card: it holds less than it says, or is worn out";
    case ProofResult::NoRoom:
      return "make room, or quellon card prepare --erase";
    case ProofResult::ReadOnly:
    case ProofResult::Missing:
      return "quellon card";
    default:
      return "dmesg; quellon card check";
  }
}

Status Tell(Proof const& proof) {
  Report report;
  AddFindings(report, proof);
  std::string const what = CapacityProof::Describe(proof.result);
  if (proof.result == ProofResult::Proved) {
    report.Tell("verdict", what);
  } else {
    report.Complain(proof.error == 0 ? what : what + ": " + std::strerror(proof.error),
                    RemedyFor(proof.result));
  }
  return Print(report);
}

}  // namespace

Status ProveCard(Arguments arguments) {
  bool const bySamples = Take(arguments, "--samples");
  bool const risksAll = Take(arguments, "--erase");
  if (!arguments.empty()) return ComplainOfUsage("card");
  if (auto const refused = RefuseWhileCardIsUsed("it would fill the card")) return *refused;
  MountedMeanwhile const mounted;
  if (!MountedCard()) return RunCard({});
  if (HasRecordings() && !risksAll) {
    return Refuse("there are recordings, which a card that lies would lose",
                  "copy them; quellon card prove --erase");
  }
  return Tell(Prove(bySamples));
}

}  // namespace Quellon::Tool
