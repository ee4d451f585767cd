// Recordings on a real card, listed and kept within their share of it.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>

#include "DiskUtils/System.h"
#include "FileUtils/Dir.h"
#include "FileUtils/FilesManager.h"
#include "tests/card/CardFixture.h"
#include "tests/support/Capture.h"
#include "tests/support/ErrorRecord.h"
#include "tests/support/OwnedSystem.h"

namespace {

namespace fs = std::filesystem;
using CardTests::NamesIn;
using CardTests::RunQuietly;
using CardTests::WriteRecording;
using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Idir;
using testing::ElementsAre;

constexpr char const* kDirectory = "/mnt/sdcard/cr/";
constexpr std::uint64_t kMebibyte = 1U << 20U;
constexpr std::uint64_t kMinimumFree = 6 * kMebibyte;
constexpr float kShare = 0.8F;
constexpr std::time_t kFirstDay = 1'600'000'000;

std::vector<std::string> NamesOf(FilesManager& catalogue) {
  std::vector<std::string> names;
  for (auto const* file : catalogue.GetList()) names.push_back(file->name);
  return names;
}

/// What the file system itself knows of a recording.
struct Recording {
  std::string name;
  time_t modified;
  std::uint64_t size;
  std::uint64_t allocated;

  [[nodiscard]] bool Protected() const { return name.ends_with(".log") || name.ends_with(".gps"); }
};

/// A second opinion on what making room leaves, from the directory and statvfs(3) alone.
class Forecast {
 public:
  Forecast(fs::path const& directory, std::uint64_t minimumFree, float fraction);

  [[nodiscard]] bool HasRoom() const;
  void MakeRoom();
  [[nodiscard]] std::vector<std::string> Survivors() const;
  [[nodiscard]] std::uint64_t UsedBytes() const;

 private:
  bool DeleteOldest();

  std::vector<Recording> recordings;  // oldest first
  double share;
  double freeBytes;
  double totalBytes;
  double minimumFreeBytes;
};

Forecast::Forecast(fs::path const& directory, std::uint64_t minimumFree, float fraction)
    : share(fraction) {
  for (auto const& entry : fs::directory_iterator(directory)) {
    struct stat status {};
    stat(entry.path().c_str(), &status);
    recordings.push_back({entry.path().filename(), status.st_mtime,
                          static_cast<std::uint64_t>(status.st_size),
                          static_cast<std::uint64_t>(status.st_blocks) * 512});
  }
  std::ranges::sort(recordings, {}, &Recording::modified);
  struct statvfs space {};
  statvfs(directory.c_str(), &space);
  freeBytes = static_cast<double>(space.f_bfree * space.f_frsize);
  totalBytes = static_cast<double>(space.f_blocks * space.f_frsize);
  minimumFreeBytes = static_cast<double>(minimumFree) + totalBytes * 0.055 * share;
}

bool Forecast::HasRoom() const {
  return freeBytes * share > minimumFreeBytes &&
         static_cast<double>(UsedBytes()) < totalBytes * share;
}

void Forecast::MakeRoom() {
  while (!HasRoom()) {
    bool const one = DeleteOldest();
    bool const two = DeleteOldest();
    ASSERT_TRUE(one || two) << "the test's recordings do not suffice";
  }
}

bool Forecast::DeleteOldest() {
  auto const oldest = std::ranges::find_if_not(recordings, &Recording::Protected);
  if (oldest == recordings.end()) return false;
  freeBytes += static_cast<double>(oldest->allocated);
  recordings.erase(oldest);
  return true;
}

std::vector<std::string> Forecast::Survivors() const {
  std::vector<std::string> names;
  for (auto const& recording : recordings) names.push_back(recording.name);
  return names;
}

std::uint64_t Forecast::UsedBytes() const {
  std::uint64_t sum = 0;
  for (auto const& recording : recordings) sum += recording.size;
  return sum;
}

/// A file that cannot be deleted, not even by root, while the object lives.
class Unremovable {
 public:
  explicit Unremovable(fs::path const& file) : path(file) {
    RunQuietly("chattr +i " + path.string());
  }
  Unremovable(Unremovable const&) = delete;
  Unremovable& operator=(Unremovable const&) = delete;
  ~Unremovable() { RunQuietly("chattr -i " + path.string()); }

 private:
  fs::path path;
};

class Catalogue : public CardTests::CardTest {
 protected:
  /// A card that comes with recordings of several days, written in no particular order.
  void InsertUsedCard() {
    card.Edit([](fs::path const& root) {
      WriteRecording(root / "cr/d4.dat", 3 * kMebibyte, kFirstDay + 400);
      WriteRecording(root / "cr/d1.dat", 2 * kMebibyte + 17, kFirstDay + 100);
      WriteRecording(root / "cr/route.gps", 70'000, kFirstDay + 150);
      WriteRecording(root / "cr/d2.dat", 5 * kMebibyte + 1, kFirstDay + 200);
      WriteRecording(root / "cr/device.log", 300'000, kFirstDay);
      WriteRecording(root / "cr/d3.dat", 1, kFirstDay + 300);
    });
    card.Insert();
  }

  /// A mounted card with nothing on it yet.
  Disk InsertEmptyCard() {
    card.Insert();
    Capture::Descriptor output(1);
    return MakeDisk();
  }

  /// One more recording, the newest, catalogued.
  void Record(FilesManager& catalogue) {
    std::string name = "new" + std::to_string(next) + ".dat";
    std::uint64_t const size = 2 * kMebibyte + static_cast<std::uint64_t>(next % 5) * 333'333;
    WriteRecording(kDirectory + name, size, kFirstDay + 1000 + next);
    ASSERT_TRUE(catalogue.AddFile(name));
    ++next;
  }

  /// Sixty recordings, with room made after each and nothing deleted too early or too late.
  void RecordEndlessly(std::uint64_t minimum, float fraction);

  int next = 0;
};

void Catalogue::RecordEndlessly(std::uint64_t minimum, float fraction) {
  Capture::Descriptor output(1);
  Disk disk = MakeDisk();
  FilesManager catalogue(&disk, kDirectory, minimum, fraction);
  ASSERT_TRUE(catalogue.LoadAndSort());

  for (int hour = 0; hour < 60; ++hour) {
    Record(catalogue);
    Forecast forecast(kDirectory, minimum, fraction);
    forecast.MakeRoom();
    ASSERT_TRUE(catalogue.MakeRoom());
    ASSERT_EQ(NamesOf(catalogue), forecast.Survivors()) << "after recording " << hour;
    ASSERT_EQ(catalogue.GetTotalFilesSize(), forecast.UsedBytes());
  }
  EXPECT_TRUE(fs::exists("/mnt/sdcard/cr/device.log"));
  EXPECT_TRUE(fs::exists("/mnt/sdcard/cr/route.gps"));
  EXPECT_FALSE(fs::exists("/mnt/sdcard/cr/d4.dat"));
}

TEST_F(Catalogue, CardIsBroughtIntoServiceFilledAndKeptWithinItsShare) {
  InsertUsedCard();
  Capture::Descriptor output(1);
  OwnedSystem system;
  Disk* const disk = system.InitDisk();
  ASSERT_TRUE(disk->available) << output.Text();

  FilesManager catalogue(disk, kDirectory, kMinimumFree, kShare);
  ASSERT_TRUE(catalogue.LoadAndSort());
  EXPECT_THAT(NamesOf(catalogue),
              ElementsAre("device.log", "d1.dat", "route.gps", "d2.dat", "d3.dat", "d4.dat"));
  while (catalogue.CheckAvailableSpace(false)) Record(catalogue);
  ASSERT_GT(next, 5);

  Forecast forecast(kDirectory, kMinimumFree, kShare);
  ASSERT_FALSE(forecast.HasRoom());
  forecast.MakeRoom();
  EXPECT_TRUE(catalogue.MakeRoom());
  EXPECT_FALSE(catalogue.HasError());
  EXPECT_EQ(NamesOf(catalogue), forecast.Survivors());
  EXPECT_EQ(Forecast(kDirectory, kMinimumFree, kShare).Survivors(), forecast.Survivors());
  EXPECT_EQ(catalogue.GetTotalFilesSize(), forecast.UsedBytes());
  EXPECT_TRUE(catalogue.CheckAvailableSpace(false));
}

TEST_F(Catalogue, EndlessRecordingLeavesTheMinimumFree) {
  InsertUsedCard();
  RecordEndlessly(kMinimumFree, kShare);
}

TEST_F(Catalogue, EndlessRecordingStaysWithinASmallShareOfALargelyEmptyCard) {
  InsertUsedCard();
  RecordEndlessly(0, 0.3F);
}

TEST_F(Catalogue, ProtectedFilesAreNeverDeletedEvenWhenNoRoomCanBeMade) {
  Disk disk = InsertEmptyCard();
  WriteRecording("/mnt/sdcard/cr/a.log", 30 * kMebibyte, kFirstDay);
  WriteRecording("/mnt/sdcard/cr/b.gps", 16 * kMebibyte, kFirstDay + 1);
  WriteRecording("/mnt/sdcard/cr/c.dat", 1 * kMebibyte, kFirstDay + 2);
  FilesManager catalogue(&disk, kDirectory, kMinimumFree, kShare);
  ASSERT_TRUE(catalogue.LoadAndSort());

  EXPECT_FALSE(catalogue.MakeRoom());
  EXPECT_EQ(ErrorOf(catalogue), "Unable to make room, after 100 retries in MakeRoom");
  EXPECT_EQ(NamesIn(kDirectory), (std::set<std::string>{"a.log", "b.gps"}));
  EXPECT_THAT(NamesOf(catalogue), ElementsAre("a.log", "b.gps"));
}

TEST_F(Catalogue, ReservedBlocksCountAsFreeAndTheReserveIsKeptInstead) {
  Disk disk = InsertEmptyCard();
  WriteRecording("/mnt/sdcard/cr/a.dat", 1 * kMebibyte, kFirstDay);
  disk.LoadDiskInfo();
  auto const freeShare = static_cast<double>(disk.freeBytes) * kShare;
  auto const reserve = static_cast<double>(disk.reserveBytes) * kShare;

  FilesManager roomy(&disk, kDirectory, static_cast<std::uint64_t>(freeShare - reserve - 1000),
                     kShare);
  EXPECT_TRUE(roomy.CheckAvailableSpace(true));
  FilesManager tight(&disk, kDirectory, static_cast<std::uint64_t>(freeShare - reserve + 1000),
                     kShare);
  EXPECT_FALSE(tight.CheckAvailableSpace(true));
}

TEST_F(Catalogue, FileThatCannotBeDeletedLeavesTheCatalogueAndStaysOnTheCard) {
  Disk disk = InsertEmptyCard();
  WriteRecording("/mnt/sdcard/cr/a.dat", 1000, kFirstDay);
  WriteRecording("/mnt/sdcard/cr/b.dat", 200, kFirstDay + 1);
  WriteRecording("/mnt/sdcard/cr/c.dat", 30, kFirstDay + 2);
  Unremovable const a("/mnt/sdcard/cr/a.dat");
  FilesManager catalogue(&disk, kDirectory, 0, kShare);
  ASSERT_TRUE(catalogue.LoadAndSort());

  EXPECT_EQ(catalogue.DeleteOldFiles(1), 1U);
  EXPECT_THAT(NamesOf(catalogue), ElementsAre("c.dat"));
  EXPECT_EQ(NamesIn(kDirectory), (std::set<std::string>{"a.dat", "c.dat"}));
  EXPECT_EQ(catalogue.GetTotalFilesSize(), 1030U);
  EXPECT_EQ(catalogue.GetTotalFilesSize(true), 30U);
}

TEST_F(Catalogue, FileThatCannotBeDeletedByNameStaysCatalogued) {
  Disk disk = InsertEmptyCard();
  WriteRecording("/mnt/sdcard/cr/a.dat", 1000, kFirstDay);
  WriteRecording("/mnt/sdcard/cr/b.log", 200, kFirstDay + 1);
  Unremovable const a("/mnt/sdcard/cr/a.dat");
  FilesManager catalogue(&disk, kDirectory, 0, kShare);
  ASSERT_TRUE(catalogue.LoadAndSort());
  std::string stuck = "a.dat";
  std::string removable = "b.log";

  EXPECT_FALSE(catalogue.RemoveFileByName(stuck));
  EXPECT_THAT(NamesOf(catalogue), ElementsAre("a.dat", "b.log"));
  auto const* const removed = catalogue.GetList().back();
  EXPECT_TRUE(catalogue.RemoveFileByName(removable));
  EXPECT_EQ(NamesIn(kDirectory), std::set<std::string>{"a.dat"});
  EXPECT_EQ(catalogue.GetTotalFilesSize(), 1000U);
  delete removed;  // nobody else would
}

TEST_F(Catalogue, DirectoryWithoutAParentOrOnAReadOnlyCardIsNotMade) {
  card.SetWriteProtected(true);
  card.Insert();
  RunQuietly("mount -o ro /dev/mmcblk1p1 /mnt/sdcard");
  Idir orphan("/mnt/sdcard/lost+found/a/b");
  Idir refused("/mnt/sdcard/cr");

  EXPECT_FALSE(orphan.Create());
  EXPECT_FALSE(refused.Create());
  EXPECT_EQ(ErrorOf(refused), "unable to create directory: /mnt/sdcard/cr in Create");
}

}  // namespace
