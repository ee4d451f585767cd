#include "tests/card/Card.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace CardTests {

namespace fs = std::filesystem;
using Tarvik::UniqueFd;

namespace {

fs::path const kBlockNode = "/dev/mmcblk1";
fs::path const kPartitionNode = "/dev/mmcblk1p1";
fs::path const kBlockEntry = "/sys/block/mmcblk1";
fs::path const kClassEntry = "/sys/class/block/mmcblk1";
fs::path const kPartitionEntry = "/sys/class/block/mmcblk1p1";
fs::path const kExt4Entry = "/sys/fs/ext4/mmcblk1p1";
fs::path const kOptionsEntry = "/proc/fs/ext4/mmcblk1p1";

[[noreturn]] void ThrowSystemError(std::string const& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

int Checked(int result, std::string const& what) {
  if (result < 0) ThrowSystemError(what);
  return result;
}

UniqueFd OpenFile(fs::path const& path, int flags) {
  return UniqueFd(Checked(open(path.c_str(), flags | O_CLOEXEC), "open " + path.string()));
}

UniqueFd MakeMemoryFile() {
  return UniqueFd(Checked(memfd_create("card", MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd"));
}

std::string PathOf(UniqueFd const& file) {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.Get());
}

void WriteLine(fs::path const& path, std::string const& text) {
  std::ofstream file(path);
  file << text << std::endl;
  if (!file) throw std::runtime_error("write " + path.string());
}

/// A mount that ends with the object.
class Mounted {
 public:
  Mounted(fs::path const& device, fs::path const& where) : path(where) {
    Checked(mount(device.c_str(), path.c_str(), "ext4", 0, nullptr), "mount " + path.string());
  }
  Mounted(Mounted const&) = delete;
  Mounted& operator=(Mounted const&) = delete;
  ~Mounted() { umount2(path.c_str(), 0); }

 private:
  fs::path path;
};

}  // namespace

void RunQuietly(std::string const& command) {
  std::string const silent = "(" + command + ") >/dev/null 2>&1";
  if (std::system(silent.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// Another process may take the free device first: then the next one is tried.
LoopDevice::LoopDevice(UniqueFd const& file, unsigned flags) {
  UniqueFd const control = OpenFile("/dev/loop-control", O_RDWR);
  loop_config config{};
  config.fd = static_cast<unsigned>(file.Get());
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR | flags;
  do {
    number = Checked(ioctl(control.Get(), LOOP_CTL_GET_FREE), "find a free loop device");
    if (!fs::exists(Node())) MakeNode(Node());
    device = OpenFile(Node(), O_RDWR);
    if (ioctl(device.Get(), LOOP_CONFIGURE, &config) == 0) return;
  } while (errno == EBUSY);
  ThrowSystemError("attach a loop device");
}

void LoopDevice::MakeNode(fs::path const& path) const {
  constexpr unsigned kLoopMajor = 7;
  constexpr mode_t kBlockDevice = S_IFBLK | 0600;
  Checked(mknod(path.c_str(), kBlockDevice, makedev(kLoopMajor, static_cast<unsigned>(number))),
          "mknod " + path.string());
}

Card::Card(std::uint64_t bytes) : image(MakeMemoryFile()) {
  Checked(ftruncate(image.Get(), static_cast<off_t>(bytes)), "size of the card");
  Format();
}

Card::~Card() {
  Remove();
}

void Card::Insert() {
  slot.emplace(image, writeProtected ? LO_FLAGS_READ_ONLY : 0);
  slot->MakeNode(kBlockNode);
  slot->MakeNode(kPartitionNode);
  MakeSysfsEntries(slot->Name());
}

void Card::Remove() {
  std::error_code ignored;
  for (auto const& entry : {kOptionsEntry, kExt4Entry, kPartitionEntry, kClassEntry, kBlockEntry,
                            kPartitionNode, kBlockNode}) {
    fs::remove_all(entry, ignored);
  }
  slot.reset();
}

void Card::MakeSysfsEntries(std::string const& loopName) const {
  fs::create_directories(kBlockEntry / "device");
  WriteLine(kBlockEntry / "device/cid", identity.cid);
  WriteLine(kBlockEntry / "device/csd", identity.csd);
  WriteLine(kBlockEntry / "device/serial", identity.serial);
  WriteLine(kBlockEntry / "device/manfid", identity.manfid);
  WriteLine(kBlockEntry / "device/oemid", identity.oemid);
  WriteLine(kBlockEntry / "device/name", identity.name);
  fs::create_symlink("/sys/kernel/block/" + loopName + "/size", kBlockEntry / "size");
  fs::create_symlink("/sys/kernel/block/" + loopName + "/ro", kBlockEntry / "ro");
  fs::create_symlink("/sys/kernel/block/" + loopName + "/stat", kBlockEntry / "stat");
  fs::create_directory_symlink(kBlockEntry, kClassEntry);
  fs::create_directory_symlink("/sys/kernel/block/" + loopName, kPartitionEntry);
  fs::create_directory_symlink("/sys/kernel/ext4/" + loopName, kExt4Entry);
  fs::create_directory_symlink("/sys/kernel/ext4-options/" + loopName, kOptionsEntry);
}

void Card::ReportReadOnly(bool on) {
  fs::remove(kBlockEntry / "ro");
  WriteLine(kBlockEntry / "ro", on ? "1" : "0");
}

void Card::MeetError() {
  fs::path const kernel = "/tmp/kernel";
  fs::create_directories(kernel);
  Checked(mount("sysfs", kernel.c_str(), "sysfs", 0, nullptr), "mount sysfs");
  std::ofstream(kernel / "fs/ext4" / slot->Name() / "trigger_fs_error")
      << "on purpose" << std::endl;
  umount2(kernel.c_str(), 0);
}

void Card::FailWrites() {
  Checked(fcntl(image.Get(), F_ADD_SEALS, F_SEAL_WRITE), "seal the card");
}

void Card::Format(std::string const& options) {
  RunQuietly("mkfs.ext4 -q -F " + options + " " + ImagePath());
}

void Card::Edit(std::function<void(fs::path const&)> const& change) {
  fs::path const reader = "/tmp/card-reader";
  fs::create_directories(reader);
  LoopDevice const device{image};
  Mounted const mounted(device.Node(), reader);
  change(reader);
}

void Card::DamageRepairably() {
  Debugfs("set_inode_field lost+found links_count 7");
}

void Card::DamageCheckOnly() {
  Debugfs("feature FEATURE_C20");
}

void Card::DamageBeyondRepair() {
  Debugfs("feature FEATURE_I29");
}

void Card::Debugfs(std::string const& request) const {
  RunQuietly("debugfs -w -R '" + request + "' " + ImagePath());
}

std::string Card::ImagePath() const {
  return PathOf(image);
}

CardSnapshot::CardSnapshot(Card const& card) : image(MakeMemoryFile()) {
  RunQuietly("cat " + card.ImagePath() + " > " + ImagePath());
}

std::string CardSnapshot::ImagePath() const {
  return PathOf(image);
}

CommandInFront::CommandInFront(std::string const& name, std::string const& script)
    : path("/root/bin/" + name) {
  WriteLine(path, "#!/bin/sh\n" + script);
  fs::permissions(path, fs::perms::owner_all);
}

CommandInFront::~CommandInFront() {
  std::error_code ignored;
  fs::remove(path, ignored);
}

LossyCheck::LossyCheck(Card const& card)
    : before(card),
      fsck("fsck",
           "/sbin/fsck \"$@\"; code=$?\n"
           "cat " +
               before.ImagePath() +
               " > /dev/mmcblk1p1\n"
               "exit $code\n") {}

}  // namespace CardTests
