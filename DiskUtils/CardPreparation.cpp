#include "DiskUtils/CardPreparation.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>

#include "DiskUtils/CheckDisk.h"
#include "DiskUtils/Disk.h"
#include "DiskUtils/internal/CardSlot.h"
#include "DiskUtils/internal/NewCard.h"
#include "DiskUtils/internal/SysFs.h"
#include "base/UniqueFd.h"
#include "base/internal/ByteFile.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Restart.h"
#include "base/internal/Retry.h"
#include "base/internal/Shell.h"

namespace Quellon::DiskUtils {

using Result = CardPreparation::Result;
using Tarvik::UniqueFd;

namespace {

constexpr int kPartitionAttempts = 50;
constexpr std::chrono::milliseconds kPartitionPause(100);

std::string CardNode() {
  return std::string("/dev/") + kCardDevice;
}

// With O_EXCL nobody else may have the device mounted or claimed, nor a partition of it.
UniqueFd OpenCard(std::string const& path, int exclusively) {
  return UniqueFd(Tarvik::RestartWhileInterrupted(
      [&] { return Tarvik::OpenFile(path.c_str(), O_RDONLY | O_NONBLOCK | exclusively); }));
}

// A device node may be there without a card.
Result WhyNotOpened(int error) {
  bool const isMissing = error == ENOENT || error == ENODEV || error == ENXIO || error == ENOMEDIUM;
  if (isMissing) return Result::Missing;
  return error == EBUSY ? Result::InUse : Result::Failed;
}

Result WhetherAllowed(CardPreparation::Permission permission) {
  UniqueFd const card = OpenCard(CardNode(), O_EXCL);
  if (!card.IsOpen()) return WhyNotOpened(errno);
  if (Disk::getSDCardReadOnlyFlag(kCardDevice)) return Result::WriteProtected;
  bool const isAllowed = permission == CardPreparation::Permission::EraseRecordings ||
                         !CardContents::Read(card.Get()).MayHoldRecordings();
  return isAllowed ? Result::Done : Result::MayHoldRecordings;
}

// Changes with the card. The kernel has it in memory.
std::string CardIdentity() {
  return SysFs::ReadWord(std::string("/sys/block/") + kCardDevice + "/device/cid");
}

// What a step comes to whose command ended with that code: the shell has one for a missing command.
Result WhyNotDone(int code, Result otherwise) {
  constexpr int kNotFound = 127;
  return code == kNotFound ? Result::CommandMissing : otherwise;
}

Result RunStep(std::string const& command, Result otherwise) {
  int const status = Tarvik::RunCommand(command.c_str());
  return status == 0 ? Result::Done : WhyNotDone(Tarvik::ExitStatusByte(status), otherwise);
}

constexpr std::uint64_t kMebibyte = 1 << 20;

std::uint64_t CardMebibytes() {
  return Disk::getSDCardTotalSize(kCardDevice) / kMebibyte;
}

// Where the partition begins, in MiB: at a multiple of what the card erases at once, 4 MiB or more.
// A small card does not give away so much.
std::uint64_t StartMebibyte() {
  constexpr std::uint64_t kUsual = 4;
  constexpr std::uint64_t kLargestPart = 64;  // of the card
  std::string const block = "/sys/block/";
  auto const erased =
      SysFs::ToNumber(SysFs::ReadWord(block + kCardDevice + "/device/preferred_erase_size"));
  auto const unit = std::max<std::uint64_t>(erased / kMebibyte, 1);
  auto const start = (kUsual + unit - 1) / unit * unit;
  return CardMebibytes() / kLargestPart >= start ? start : 1;
}

// What the one partition of the card holds, as the next start will find it; nothing where the card
// is another than was made. Remains of an ext that may be erased are none of its contents.
std::optional<CardContents::Kind> OnlyPartition() {
  CardContents card;
  bool const isSeen = CardPreparation::Look(card) == Result::Done && !card.isUnreadable;
  bool const isAsMade = card.table == CardContents::Table::Mbr && card.partitions.size() == 1;
  constexpr auto kExt = CardContents::Kind::Ext;
  if (!isSeen || !isAsMade || card.whole == kExt || card.partitions[0] == kExt) return std::nullopt;
  return card.partitions[0];
}

// The card is looked at once more: another may be in the slot by now.
Result MakePartition() {
  Result const made = RunStep("echo start=" + std::to_string(StartMebibyte()) +
                                  "MiB,type=83 | sfdisk --quiet --label dos --wipe always "
                                  "--wipe-partitions always " +
                                  CardNode(),
                              Result::NotPartitioned);
  if (made != Result::Done) return made;
  auto const isThere = [] { return OnlyPartition() && OpenCard(kCardPartition, O_EXCL).IsOpen(); };
  bool const hasCome = Tarvik::Retry(kPartitionAttempts, kPartitionPause, isThere) != 0;
  return hasCome ? Result::Done : Result::NotPartitioned;
}

// The inode tables are left to the kernel, which clears them in the background: of a card of 128 GB
// they are 2 GiB. What would take as long is not left to it: an old journal must not be taken for
// the new one, so it is cleared here, and kept small. Nothing is discarded, since nobody promises
// how long a card takes for that. The kernel may have gone on with an old table, and the file
// system lie elsewhere.
Result MakeFileSystem() {
  constexpr std::uint64_t kLargeMebibytes = 4096;  // smaller ones get no longer a journal anyway
  std::string const journal = CardMebibytes() >= kLargeMebibytes ? "-J size=64 " : "";
  Result const made = RunStep("mkfs.ext4 -q -F -O has_journal " + journal +
                                  "-E lazy_itable_init=1,lazy_journal_init=0,nodiscard -M " +
                                  kNewMark + " -L storage " + kCardPartition,
                              Result::NotFormatted);
  if (made != Result::Done) return made;
  bool const isThere = OnlyPartition() == CardContents::Kind::NewExt;
  return isThere ? Result::Done : Result::NotPartitioned;
}

// Unmounts at its end what is mounted then.
class Mounted {
 public:
  Mounted() {
    constexpr unsigned long kFlags = MS_NOEXEC | MS_NOATIME | MS_NODIRATIME;
    isMounted = mount(kCardPartition, kCardMountPoint, "ext4", kFlags, "data=writeback") == 0;
  }
  Mounted(Mounted const&) = delete;
  Mounted& operator=(Mounted const&) = delete;
  ~Mounted() {
    if (isMounted) umount(kCardMountPoint);
  }

  bool isMounted;
};

constexpr auto kTestFile = "check.tmp";

// Each block has a letter of its own: one that is lost, or comes in the place of another, is seen.
std::string TestText() {
  constexpr std::size_t kBlock = 4096;
  std::string text;
  for (char letter = 'a'; letter <= 'l'; ++letter) text.append(kBlock, letter);
  return text;
}

void WriteTestFile(std::string const& path) {
  Tarvik::ByteFile<std::ofstream>(path, std::ios::trunc) << TestText();
}

bool HasTestFile(std::string const& path) {
  std::string found;
  Tarvik::ByteFile<std::ifstream> file(path);
  std::getline(file, found, '\0');  // all of it; an error ends it and throws nothing
  return file.eof() && found == TestText();
}

// Only after an unmount and a check does the file come from the card itself.
Result TestCard() {
  Mounted const card;
  if (!card.isMounted) return Result::NotMounted;
  std::string place = kCardMountPoint;
  std::string partition = kCardPartition;
  std::string const path = place + kTestFile;
  WriteTestFile(path);
  int const code = CheckDisk(place.data(), partition.data()).DiskCheck();
  if (code != 0) return WhyNotDone(code, Result::CheckFailed);
  if (!HasTestFile(path)) return Result::NotKept;
  unlink(path.c_str());
  return Result::Done;
}

}  // namespace

Result CardPreparation::Look(CardContents& contents) {
  UniqueFd const card = OpenCard(CardNode(), 0);
  if (!card.IsOpen()) return WhyNotOpened(errno);
  contents = CardContents::Read(card.Get());
  return Result::Done;
}

Result CardPreparation::Prepare(Permission permission, Progress const& progress) {
  if (progress) progress("looking at the card");
  Result result = WhetherAllowed(permission);
  if (result != Result::Done) return result;
  std::string const identity = CardIdentity();
  // Whoever is told of a step may take his time, and the card.
  auto const goOn = [&](char const* step, Result (*work)()) {
    if (progress) progress(step);
    return CardIdentity() == identity ? work() : Result::Exchanged;
  };
  result = goOn("making the partition", MakePartition);
  if (result == Result::Done) result = goOn("making the file system", MakeFileSystem);
  if (result == Result::Done) result = goOn("testing the card", TestCard);
  return result;
}

char const* CardPreparation::Describe(Result result) noexcept {
  switch (result) {
    case Result::Done:
      return "done";
    case Result::Missing:
      return "there is no card";
    case Result::WriteProtected:
      return "the card is write-protected";
    case Result::InUse:
      return "the card is in use";
    case Result::MayHoldRecordings:
      return "the card may hold recordings";
    case Result::NotPartitioned:
      return "the card could not be partitioned";
    case Result::NotFormatted:
      return "the file system could not be made";
    case Result::NotMounted:
      return "the file system cannot be mounted";
    case Result::CheckFailed:
      return "the check of the file system failed";
    case Result::NotKept:
      return "the card does not keep what is written";
    case Result::Exchanged:
      return "the card was pulled or exchanged";
    case Result::CommandMissing:
      return "a command is missing";
    case Result::Failed:
      break;
  }
  return "the card cannot be opened";
}

}  // namespace Quellon::DiskUtils
