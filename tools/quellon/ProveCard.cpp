// Whether the card holds as much as it says.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "CardFacts.h"
#include "CardWork.h"
#include "DiskUtils/CapacityProof.h"
#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/internal/CardSlot.h"
#include "Interruption.h"
#include "Kicks.h"
#include "Progress.h"
#include "Reading.h"
#include "Refusal.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

namespace {

using DiskUtils::CapacityProof;
using DiskUtils::kCardMountPoint;
using Proof = CapacityProof::Report;
using ProofResult = CapacityProof::Result;

/// Mounts the card if it is not mounted, and unmounts it then, at the end at the latest.
class MountedMeanwhile {
 public:
  MountedMeanwhile() {
    constexpr unsigned long kFlags = MS_NOEXEC | MS_NOATIME | MS_NODIRATIME;
    isOurs = !MountedCard() &&
             mount(DiskUtils::kCardPartition, kCardMountPoint, "ext4", kFlags, nullptr) == 0;
  }
  MountedMeanwhile(MountedMeanwhile const&) = delete;
  MountedMeanwhile& operator=(MountedMeanwhile const&) = delete;
  ~MountedMeanwhile() { Unmount(); }

  /// False, with `errno`, where it stays mounted though it was not before.
  bool Unmount() {
    isOurs = isOurs && umount(kCardMountPoint) != 0;
    return !isOurs;
  }

 private:
  bool isOurs;
};

// Whether there may be a file in a folder, whose path ends in "/", or below it. What cannot be read
// may be one, and so may what lies too deep.
bool MayHoldFiles(std::string const& folder, int levels = 32) {
  auto const names = NamesIn(folder);
  if (!names || levels == 0) return true;
  return std::ranges::any_of(*names, [&](std::string const& name) {
    struct stat status {};
    std::string const path = folder + name;
    bool const isFolder = lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    return !isFolder || MayHoldFiles(path + "/", levels - 1);
  });
}

/// What is done again and again.
class Interval {
 public:
  explicit Interval(std::chrono::seconds time) : length(time) {}

  /// Whether it is over; then the next one begins.
  bool IsOver() {
    auto const now = std::chrono::steady_clock::now();
    if (now - start < length) return false;
    start = now;
    return true;
  }

 private:
  std::chrono::seconds length;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

/// What goes on beside a proof. A service that starts meanwhile would find the card full, and
/// delete its oldest recordings.
class Attendance {
 public:
  bool GoesOn(std::uint64_t done, std::uint64_t all) {
    progress.Show(done, all);
    if (kick.IsOver()) kicks.GoOn();
    if (look.IsOver()) users = UsersOf(PlacesOfTheCard());
    return users.found.empty() && !Interruption::HasCome();
  }

  Users users;  ///< who has begun to use the card

 private:
  KicksMeanwhile kicks;
  Progress progress{"proved"};
  Interval kick{std::chrono::minutes(1)};
  Interval look{std::chrono::seconds(1)};
};

struct Outcome {
  Proof proof;
  Users users;
};

Outcome Prove(bool bySamples) {
  Attendance attendance;
  auto const goesOn = [&](auto done, auto all) { return attendance.GoesOn(done, all); };
  CapacityProof const proof(kCardMountPoint);
  Proof const found = bySamples ? proof.ProveSamples(goesOn) : proof.ProveAll(goesOn);
  return {found, attendance.users};
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

void AddVerdict(Report& report, Outcome const& outcome) {
  auto const& [proof, users] = outcome;
  std::string const what = CapacityProof::Describe(proof.result);
  if (proof.result == ProofResult::Proved) {
    report.Tell("verdict", what);
  } else if (proof.result != ProofResult::Cancelled) {
    report.Complain(proof.error == 0 ? what : what + ": " + std::strerror(proof.error),
                    RemedyFor(proof.result));
  } else if (users.found.empty()) {
    report.Complain("stopped: what it wrote is gone", "quellon card prove, once more");
  } else {
    report.Complain("stopped: in use by " + Show(users), HowToStop(users));
  }
}

}  // namespace

Status ProveCard(Arguments arguments) {
  bool const bySamples = Take(arguments, "--samples");
  bool const risksAll = Take(arguments, "--erase");
  if (!arguments.empty()) return ComplainOfUsage("card");
  if (auto const refused = RefuseWhileCardIsUsed("it would fill the card")) return *refused;
  Interruption const interruption;
  MountedMeanwhile mounted;
  if (!MountedCard()) return RunCard({});
  if (!DiskUtils::CardDirectory(kCardMountPoint, DiskUtils::kCardPartition).IsOpen())
    return Refuse("what is mounted there is not the card", "umount /mnt/sdcard");
  if (!risksAll && MayHoldFiles(kCardMountPoint)) {
    return Refuse("there are files, or may be: a card that lies would lose them",
                  "copy them; quellon card prove --erase");
  }
  Outcome const outcome = Prove(bySamples);
  Report report;
  AddFindings(report, outcome.proof);
  AddVerdict(report, outcome);
  if (!mounted.Unmount()) {
    int const error = errno;
    report.Complain(std::string("the card is still mounted: ") + std::strerror(error),
                    "umount /mnt/sdcard");
  }
  report.Tell("mounted", MountedCard() ? "yes" : "no");
  return Print(report);
}

}  // namespace Quellon::Tool
