#include "Recorder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <set>
#include <sstream>
#include <string_view>

#include "CheckUnlessMountable.h"
#include "FileUtils/Dir.h"
#include "base/IException.h"
#include "base/IThread.h"
#include "base/Logger.h"
#include "base/UniqueFd.h"

using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Idir;
using Quellon::FileUtils::Ifile;
using Tarvik::Ilog::Error;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;

namespace {

constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr std::string_view kPrefix = "rec_";
constexpr int kLastNumber = 999999;  // six digits; then they begin anew
constexpr std::size_t kPositionsBytes = 1024;
constexpr std::chrono::seconds kShortestKickPeriod(1);
constexpr std::chrono::minutes kLongestCheck(30);

// Half the timeout would do; a quarter leaves time for a card that keeps its writer waiting. Each
// kick is a line of the log.
std::chrono::seconds KickPeriod(Quellon::Watchdog const& watchdog) {
  return std::max(kShortestKickPeriod, std::chrono::seconds(watchdog.timeout / 4));
}

std::string RecordingName(int number, char const* extension) {
  std::ostringstream name;
  name << kPrefix << std::setw(6) << std::setfill('0') << number << extension;
  return name.str();
}

std::string Stem(std::string const& name) {
  return name.substr(0, name.rfind('.'));
}

// Whether the card itself, and not the kernel's memory of it, can be read.
bool CardAnswers() {
  constexpr std::size_t kBlock = 4096;  // direct reads go by whole, aligned blocks
  alignas(kBlock) std::array<char, kBlock> block;
  Tarvik::UniqueFd const card(open("/dev/mmcblk1p1", O_RDONLY | O_DIRECT | O_CLOEXEC));
  return card.IsOpen() && read(card.Get(), block.data(), kBlock) == kBlock;
}

// Each file holds its own name again and again, so that anybody can see whether it is intact.
void Fill(Ifile& file, std::size_t bytes) {
  std::string line = file.name + "\n";
  file.Open(false);
  for (std::size_t written = 0; written < bytes; written += line.size()) {
    file.Write(line.data(), static_cast<unsigned int>(std::min(line.size(), bytes - written)));
  }
}

// Gives what was written its place on the card and writes it there, without a commit of the journal
// of its own. The kernel tells of a failure once: here, and no more in `Sync`.
bool WriteBack(Ifile& file) {
  constexpr unsigned int kAndWait = SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  file.Close();
  Tarvik::UniqueFd const fd(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
  return fd.IsOpen() && sync_file_range(fd.Get(), 0, 0, kAndWait) == 0;
}

bool CouldNotWrite(Ifile const& file) {
  LogLine(Error) << "[REC] Could not write " << file.path;
  return false;
}

// Kicks the watchdog while the card is checked, which takes minutes when it is large, but not for
// ever: a check that hangs is the watchdog's to end.
class KicksMeanwhile : public Tarvik::Interfaces::IThread {
 public:
  explicit KicksMeanwhile(Quellon::Watchdog& kicked) : watchdog(kicked) { Start(); }
  ~KicksMeanwhile() override {
    Cancel();
    Join();
  }
  KicksMeanwhile(KicksMeanwhile const&) = delete;
  KicksMeanwhile& operator=(KicksMeanwhile const&) = delete;

  void Run() override {
    if (over.WaitFor(KickPeriod(watchdog))) return;
    watchdog.Reset();
    if (std::chrono::steady_clock::now() > end) Cancel();
  }

 private:
  void Stopping() override { over.Notify(); }

  Quellon::Watchdog& watchdog;
  std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now() + kLongestCheck;
  Tarvik::Interfaces::ISemaphore over;
};

}  // namespace

Recorder::Recorder(Settings const& chosen)
    : settings(chosen),
      system(*Quellon::System::GetInstance()),
      watchdog(chosen.watchdogSeconds),
      lastKick(std::chrono::steady_clock::now()) {}

void Recorder::Run() {
  if (!StartCard()) return;
  do {
    KickWatchdog();
    if (catalogue == nullptr && CardIsBack() && !StartCard()) return;
    if (catalogue != nullptr && !Record() && WaitForLoad()) GiveUpCard();
  } while (WaitForNextPeriod());
  if (catalogue != nullptr) LeaveCard();
  LogLine(Info) << "[REC] Stopped";
}

// False when the machine is about to reboot.
bool Recorder::StartCard() {
  cardWasOut = false;
  Disk* const disk = InitDisk();
  if (disk == nullptr) return false;
  LogLine(Info) << "[REC] Health " << system.GetHealthReport();
  if (disk->available) {
    system.SaveSDCardStatusCounter(0);
    OpenCatalogue(disk);
  } else {
    LogLine(Error) << "[REC] No usable card, going on without recordings";
  }
  return true;
}

Disk* Recorder::InitDisk() {
  KicksMeanwhile const kicks(watchdog);
  CheckUnlessMountable();
  return system.InitDisk();
}

// The catalogue is loaded while recording begins: that needs but the next number.
void Recorder::OpenCatalogue(Disk* disk) {
  if (!Idir(kRecordings).Create()) LogLine(Error) << "[REC] No directory for recordings";
  if (!FindLastNumber()) {
    LogLine(Error) << "[REC] Could not read " << kRecordings;
    GiveUpCard();
    return;
  }
  catalogue =
      std::make_unique<FilesManager>(disk, kRecordings, settings.minimumFreeBytes, settings.share);
  load = std::make_unique<LoadsMeanwhile>(*catalogue);
}

// A card that is put back later must not find the old one still mounted. No load may be running.
void Recorder::GiveUpCard() {
  load.reset();
  catalogue.reset();
  system.disk->Umount();
  LogLine(Info) << "[REC] Card released";
}

// A load has the card in use, and nothing ends it but the end of the process: with that the card is
// unmounted, too.
void Recorder::LeaveCard() {
  if (!IsLoading()) {
    GiveUpCard();
    return;
  }
  umount2(system.disk->mountPoint.c_str(), MNT_DETACH);
  LogLine(Info) << "[REC] Card released when the process ends";
}

// A card that failed is not tried again before it was out of its slot: each try may end in a
// reboot.
bool Recorder::CardIsBack() {
  if (!CardAnswers()) cardWasOut = true;
  return cardWasOut && CardAnswers();
}

// While the catalogue is loaded, a full card waits for it.
bool Recorder::Record() {
  if (IsLoading() && HasRoomMeanwhile()) return WriteFiles();
  return WaitForLoad() && FinishLoad() && MakeRoom() && WriteFiles();
}

bool Recorder::HasRoomMeanwhile() {
  try {
    return catalogue->CheckAvailableSpace(true);
  } catch (Tarvik::IException const&) {
    return false;  // once the load is over, the catalogue will say why
  }
}

// False when the service is to stop before the load is over, which the next wait then finds, too.
bool Recorder::WaitForLoad() {
  while (IsLoading()) {
    if (stop.WaitFor(kShortestKickPeriod)) {
      stop.Notify();
      return false;
    }
    KickWatchdog();
  }
  return true;
}

bool Recorder::FinishLoad() {
  if (load == nullptr) return true;
  std::unique_ptr<LoadsMeanwhile> const over = std::move(load);
  if (!over->Finish()) {
    LogLine(Error) << "[REC] " << catalogue->GetError();
    return false;
  }
  // Somebody has deleted them meanwhile; the card is none the worse for it.
  for (auto const& name : over->GetGone()) {
    LogLine(Error) << "[REC] Could not write " << kRecordings << name;
  }
  LogLine(Info) << "[REC] Catalogue of " << catalogue->GetList().size() << " files, "
                << catalogue->GetTotalFilesSize() << " bytes";
  return true;
}

bool Recorder::MakeRoom() {
  std::size_t const before = catalogue->GetList().size();
  if (!catalogue->MakeRoom()) {
    LogLine(Error) << "[REC] " << catalogue->GetError();
    return false;
  }
  std::size_t const deleted = before - catalogue->GetList().size();
  if (deleted == 0) return true;
  LogLine(Info) << "[REC] Deleted " << deleted << " oldest recordings";
  RemoveOrphanedPositions();
  return true;
}

// The library never deletes positions by age; here they go with their recording.
void Recorder::RemoveOrphanedPositions() {
  std::set<std::string> recordings;
  std::set<std::string> positions;
  for (Ifile* file : catalogue->GetList()) {
    (file->extension == ".gps" ? positions : recordings).insert(Stem(file->GetName()));
  }
  for (auto const& stem : positions) {
    std::string name = stem + ".gps";
    if (!recordings.contains(stem)) catalogue->RemoveFileByName(name);
  }
}

// Both files are on the card before they count, since what is complete must survive a power cut.
// The first `Sync` brings both there: each would cost the card a commit of the journal.
bool Recorder::WriteFiles() {
  number = number % kLastNumber + 1;
  std::string path = kRecordings + RecordingName(number, ".dat");
  std::string positionsPath = kRecordings + RecordingName(number, ".gps");
  Ifile recording(path, false);
  Ifile positions(positionsPath, false);
  Fill(recording, settings.recordingBytes);
  Fill(positions, kPositionsBytes);
  if (!WriteBack(positions)) return CouldNotWrite(positions);
  return Complete(recording, settings.recordingBytes) && Complete(positions, kPositionsBytes);
}

bool Recorder::Complete(Ifile& file, std::size_t bytes) {
  if (!file.Sync() || !AddFile(file.name)) return CouldNotWrite(file);
  LogLine(Info) << "[REC] Recorded " << file.name << " " << bytes << " bytes";
  return true;
}

bool Recorder::AddFile(std::string name) {
  if (load == nullptr) return catalogue->AddFile(name);
  load->Add(name);
  return true;
}

// False when the names cannot be read to the last: the next recording might overwrite one.
bool Recorder::FindLastNumber() {
  number = 0;
  std::unique_ptr<DIR, int (*)(DIR*)> const directory(opendir(kRecordings), closedir);
  if (directory == nullptr) return false;
  auto const next = [&directory] {
    errno = 0;
    return readdir(directory.get());
  };
  while (dirent const* entry = next()) {
    std::string_view const name = entry->d_name;
    if (!name.starts_with(kPrefix)) continue;
    long const found = std::strtol(entry->d_name + kPrefix.size(), nullptr, 10);
    if (found <= kLastNumber) number = std::max(number, static_cast<int>(found));  // else not ours
  }
  return errno == 0;
}

// False when the service is to stop.
bool Recorder::WaitForNextPeriod() {
  auto const next = std::chrono::steady_clock::now() + settings.period;
  while (true) {
    auto const left =
        std::chrono::ceil<std::chrono::milliseconds>(next - std::chrono::steady_clock::now());
    if (left.count() <= 0) return !stop.TryWait();
    if (stop.WaitFor(std::min<std::chrono::milliseconds>(left, kShortestKickPeriod))) return false;
    KickWatchdog();
  }
}

// A load that hangs is the watchdog's to end.
void Recorder::KickWatchdog() {
  if (load != nullptr && load->Hangs()) return;
  auto const now = std::chrono::steady_clock::now();
  if (now - lastKick < KickPeriod(watchdog)) return;
  watchdog.Reset();
  lastKick = now;
}
