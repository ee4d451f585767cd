#include "tests/card/BareCard.h"

#include <linux/loop.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace CardTests {

namespace fs = std::filesystem;

namespace {

fs::path const kBlockEntry = "/sys/block/mmcblk1";
fs::path const kClassEntry = "/sys/class/block/mmcblk1";
fs::path const kExt4Entry = "/sys/fs/ext4/mmcblk1p1";
// Tells the kernel of the partitions, which some kernels do not look for, and makes their nodes.
char const* const kMakeNodes = R"(
rm -f /dev/mmcblk1p*
/sbin/sfdisk --dump /dev/mmcblk1 2>/dev/null |
  sed -n 's/^.dev.mmcblk1p\([0-9]*\) : start= *\([0-9]*\), size= *\([0-9]*\).*/\1 \2 \3/p' |
  while read -r number start size; do
    addpart /dev/mmcblk1 "$number" "$start" "$size"
    IFS=: read -r major minor <"/sys/kernel/block/$loop/${loop}p$number/dev" &&
      mknod -m 600 /dev/mmcblk1p"$number" b "$major" "$minor"
  done 2>/dev/null
exit 0
)";
char const* const kSfdisk = "/sbin/sfdisk \"$@\" && make-nodes\n";

void Checked(bool isDone, char const* what) {
  if (!isDone) throw std::runtime_error(what);
}

}  // namespace

BareCard::BareCard(FoundCards::Card const& found) : image(memfd_create("card", MFD_CLOEXEC)) {
  Checked(ftruncate(image.Get(), FoundCards::kBytes) == 0, "size of the card");
  for (auto const& [place, bytes] : found.pieces) {
    Checked(pwrite(image.Get(), bytes.data(), bytes.size(), static_cast<off_t>(place)) ==
                static_cast<ssize_t>(bytes.size()),
            "bytes of the card");
  }
  if (!found.table.empty()) {
    RunQuietly("printf '" + found.table + "' | sfdisk --quiet " + ImagePath());
  }
  for (auto const sector : found.fileSystems) MakeFileSystem(sector, found.options);
}

BareCard::~BareCard() {
  Remove();
}

void BareCard::Insert(bool writeProtected) {
  slot.emplace(image, LO_FLAGS_PARTSCAN | (writeProtected ? LO_FLAGS_READ_ONLY : 0));
  slot->MakeNode("/dev/mmcblk1");
  fs::create_directories(kBlockEntry / "device");
  std::ofstream(kBlockEntry / "device/preferred_erase_size") << "4194304\n";
  for (char const* property : {"size", "ro"}) {
    fs::create_symlink("/sys/kernel/block/" + slot->Name() + "/" + property,
                       kBlockEntry / property);
  }
  fs::create_directory_symlink(kBlockEntry, kClassEntry);
  fs::create_directory_symlink("/sys/kernel/ext4/" + slot->Name() + "p1", kExt4Entry);
  makeNodes.emplace("make-nodes", "loop=" + slot->Name() + kMakeNodes);
  sfdisk.emplace("sfdisk", kSfdisk);
  RunQuietly("make-nodes");
}

void BareCard::Remove() {
  std::error_code ignored;
  for (auto const& entry : fs::directory_iterator("/dev", ignored)) {
    if (entry.path().filename().string().starts_with("mmcblk1")) fs::remove(entry, ignored);
  }
  for (auto const& entry : {kExt4Entry, kClassEntry, kBlockEntry}) fs::remove_all(entry, ignored);
  sfdisk.reset();
  makeNodes.reset();
  slot.reset();
}

std::vector<char> BareCard::Bytes() const {
  std::vector<char> bytes(FoundCards::kBytes);
  Checked(pread(image.Get(), bytes.data(), bytes.size(), 0) == std::ssize(bytes), "read the card");
  return bytes;
}

void BareCard::SetBytes(std::vector<char> const& bytes) {
  Checked(pwrite(image.Get(), bytes.data(), bytes.size(), 0) == std::ssize(bytes),
          "write the card");
}

std::string BareCard::ImagePath() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(image.Get());
}

void BareCard::MakeFileSystem(std::uint64_t sector, std::string const& options) const {
  fs::path const folder = "/tmp/found-recordings";
  fs::create_directories(folder / "cr");
  std::ofstream(folder / "cr/old.dat") << "a recording";
  RunQuietly("mkfs.ext4 -q -F " + options + " -d " + folder.string() + " -E offset=" +
             std::to_string(sector * FoundCards::kSector) + " " + ImagePath() + " 8192k");
  fs::remove_all(folder);
}

}  // namespace CardTests
