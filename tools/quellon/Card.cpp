// The card in the slot: what it is, and how it does.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "CardFacts.h"
#include "CardWork.h"
#include "Command.h"
#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/CardPreparation.h"
#include "DiskUtils/internal/CardSlot.h"
#include "Reading.h"
#include "Report.h"
#include "Users.h"

namespace Quellon::Tool {

namespace {

using DiskUtils::CardPreparation;

std::string OfCard(char const* property) {
  return std::string("/sys/block/") + DiskUtils::kCardDevice + property;
}

/// The codes of the health summary, and what they mean here.
enum class State { InService = 0, Malfunction = 1, WriteProtected = 2, NotUsable = 3 };

char const* Describe(State state) {
  switch (state) {
    case State::InService:
      return "in service";
    case State::Malfunction:
      return "failing";
    case State::WriteProtected:
      return "write-protected";
    case State::NotUsable:
      break;
  }
  return "not usable";
}

void AddIdentity(Report& report) {
  constexpr std::array<std::pair<char const*, char const*>, 5> kProperties = {
      {{"name", "name"},
       {"manfid", "manufacturer"},
       {"oemid", "OEM"},
       {"serial", "serial"},
       {"cid", "CID"}}};
  for (auto const& [property, label] : kProperties) {
    auto const text = ReadLine(OfCard("/device/") + property);
    if (text) report.Add(property, label, *text);
  }
  constexpr double kSectorBytes = 512;
  if (auto const sectors = ReadNumber(OfCard("/size"))) {
    double const bytes = static_cast<double>(*sectors) * kSectorBytes;
    report.Add("size_bytes", "size", bytes, ShowBytes(bytes));
  }
}

void AddSpace(Report& report) {
  auto const space = SpaceOf(DiskUtils::kCardMountPoint);
  if (!space) {
    return report.Miss(std::string(DiskUtils::kCardMountPoint) + ": " + std::strerror(errno));
  }
  report.Add("total_bytes", "file system", space->total, ShowBytes(space->total));
  report.Add("free_bytes", "free", space->free,
             ShowBytes(space->free) + ", " + ShowShare(space->free, space->total));
}

// Errors since the last check that has mended all.
long long AddHistory(Report& report, Mounted const& mounted) {
  std::string const history =
      "/sys/fs/ext4/" + mounted.device.substr(mounted.device.rfind('/') + 1) + "/";
  if (auto const kilobytes = ReadNumber(history + "lifetime_write_kbytes")) {
    constexpr double kKilo = 1024;
    double const bytes = static_cast<double>(*kilobytes) * kKilo;
    report.Add("written_bytes", "written", bytes, ShowBytes(bytes) + " in its life");
  }
  auto const errors = ReadNumber(history + "errors_count");
  if (!errors) return 0;
  std::string shown = std::to_string(*errors);
  auto const last = ReadNumber(history + "last_error_time");
  if (last && *last != 0) shown += ", the last at " + ShowTime(static_cast<std::time_t>(*last));
  report.Add("errors", "errors", *errors, shown);
  return *errors;
}

State MountedState(Report& report, Mounted const& mounted, bool isProtected) {
  report.Add("file_system", "mounted",
             mounted.device + ", " + mounted.type + (mounted.isReadOnly ? ", read-only" : ""));
  AddSpace(report);
  long long const errors = AddHistory(report, mounted);
  if (isProtected) return State::WriteProtected;
  if (errors > 0) {
    report.Complain("the file system has met errors",
                    "save the recordings; quellon card check --repair; if it comes again, replace "
                    "the card");
  } else if (mounted.isReadOnly) {
    report.Complain("the file system is read-only, the card is not", "dmesg; quellon card check");
  }
  return errors > 0 || mounted.isReadOnly ? State::Malfunction : State::InService;
}

// The kernel gives another card in the slot the names of the one that was pulled, which stays
// mounted as long as it is used.
bool IsAnother(Mounted const& mounted) {
  DiskUtils::CardDirectory const root(DiskUtils::kCardMountPoint, mounted.device);
  return !root.IsOpen() && (errno == EXDEV || errno == ENOENT);
}

using Kind = DiskUtils::CardContents::Kind;

bool HasExt(DiskUtils::CardContents const& contents) {
  auto const isExt = [](Kind kind) { return kind == Kind::Ext || kind == Kind::NewExt; };
  return isExt(contents.whole) || std::ranges::any_of(contents.partitions, isExt);
}

void LookAtContents(Report& report) {
  DiskUtils::CardContents contents;
  if (CardPreparation::Look(contents) != CardPreparation::Result::Done) {
    report.Miss(std::string("/dev/") + DiskUtils::kCardDevice + ": " + std::strerror(errno));
    return report.Complain("the card is not mounted", "quellon card, as root");
  }
  report.Tell("holds", contents.Describe());
  if (contents.whole == Kind::LostExt) {
    report.Complain("the card has lost its partition table",
                    "have it restored; quellon card prepare --erase gives up what it holds");
  } else if (!Exists(DiskUtils::kCardPartition)) {
    report.Complain("the card has no partition", "quellon card prepare");
  } else if (contents.isUnreadable) {
    report.Complain("the card cannot be read", "dmesg; replace the card");
  } else if (std::ranges::count(contents.partitions, Kind::LostExt) > 0) {
    report.Complain("the file system has lost its beginning", "quellon card check --repair");
  } else if (!HasExt(contents)) {
    report.Complain("the card holds no ext4", "quellon card prepare");
  } else {
    report.Complain("the card is not mounted", "quellon card check, then start the service");
  }
}

// Only who asks for the card has it read: one that fails may keep its reader waiting.
State UnmountedState(Report& report, bool isProtected, bool isRead) {
  report.Tell("mounted", "no");
  if (isProtected) return State::WriteProtected;
  if (isRead) {
    LookAtContents(report);
  } else {
    report.Complain("the card is not mounted", "quellon card");
  }
  return State::NotUsable;
}

State StateOfCard(Report& report, bool isRead) {
  auto const mounted = MountedCard();
  if (!Exists(OfCard(""))) {
    report.Complain(mounted ? "the card was pulled while it was mounted" : "no card in the slot",
                    mounted ? "restart the service" : "put one in; if there is one, clean it");
    return State::NotUsable;
  }
  AddIdentity(report);
  if (mounted && IsAnother(*mounted)) {
    report.Complain("the card was pulled while it was mounted, and another put in",
                    "restart the service");
    return State::NotUsable;
  }
  bool const isProtected = ReadNumber(OfCard("/ro")).value_or(0) != 0;
  State const state = mounted ? MountedState(report, *mounted, isProtected)
                              : UnmountedState(report, isProtected, isRead);
  if (isProtected) {
    report.Complain("the card is write-protected",
                    "release its switch; without one it is worn out: replace it");
  }
  return state;
}

Status WorkOnCard(Arguments const& arguments) {
  constexpr std::array<std::pair<std::string_view, Status (*)(Arguments)>, 3> kWorks = {
      {{"check", CheckCard}, {"prove", ProveCard}, {"prepare", PrepareCard}}};
  for (auto const& [name, work] : kWorks) {
    if (arguments[0] == name) return work({arguments.begin() + 1, arguments.end()});
  }
  return ComplainOfUsage("card");
}

}  // namespace

void LookAtCard(Report& report, bool isRead) {
  report.Begin("card");
  State const state = StateOfCard(report, isRead);
  Users const users = UsersOf(PlacesOfTheCard());
  report.Tell("used by", Show(users));
  report.Add("state", "state", static_cast<int>(state), Describe(state));
  report.Summarize(Describe(state));
}

Status RunCard(Arguments const& arguments) {
  if (!arguments.empty()) return WorkOnCard(arguments);
  Report report;
  LookAtCard(report, true);
  return Print(report);
}

}  // namespace Quellon::Tool
