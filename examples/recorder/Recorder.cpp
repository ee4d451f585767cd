#include "Recorder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/CheckUnlessMountable.h"
#include "FileUtils/Dir.h"
#include "Watchdog/BackgroundKicks.h"
#include "base/IException.h"
#include "base/Logger.h"
#include "base/UniqueFd.h"

using Quellon::WatchdogGuard;
using Quellon::DiskUtils::CardState;
using Quellon::DiskUtils::Disk;
using Quellon::FileUtils::BackgroundLoad;
using Quellon::FileUtils::FilesManager;
using Quellon::FileUtils::Idir;
using Quellon::FileUtils::Ifile;
using Quellon::RTC::ClockFloor;
using std::chrono::steady_clock;
using Tarvik::Ilog::Error;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using Tarvik::Ilog::Warning;

namespace {

constexpr char const* kPartition = "/dev/mmcblk1p1";
constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr std::string_view kPrefix = "rec_";
constexpr int kLastNumber = 999999;  // six digits; then they begin anew
constexpr std::size_t kPositionsBytes = 1024;
constexpr std::size_t kSlice = std::size_t{64} << 10;
constexpr std::chrono::minutes kLongestCheck(30);
constexpr std::chrono::milliseconds kLongestPause(1000);  // between two kicks, where they are due

// A little less than the second that a power cut may cost: it takes a moment until what was
// recorded is on the card.
constexpr std::chrono::milliseconds kLongestUnsafe(900);

std::string RecordingName(int number, char const* extension) {
  return std::string(kPrefix) + std::to_string(kLastNumber + 1 + number).substr(1) + extension;
}

// Whether the card itself, and not the kernel's memory of it, can be read.
bool CardAnswers() {
  constexpr std::size_t kBlock = 4096;  // direct reads go by whole, aligned blocks
  alignas(kBlock) std::array<char, kBlock> block;
  Tarvik::UniqueFd const card(open(kPartition, O_RDONLY | O_DIRECT | O_CLOEXEC));
  return card.IsOpen() && read(card.Get(), block.data(), kBlock) == kBlock;
}

// Each file holds its own name again and again, so that anybody can see whether it is intact.
std::string Slice(Ifile const& file) {
  std::string slice;
  while (slice.size() < kSlice) slice += file.name + "\n";
  return slice;
}

void Write(Ifile& file, std::string& slice, std::size_t most) {
  file.Write(slice.data(), static_cast<unsigned int>(std::min(slice.size(), most)));
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
  LogLine(Error) << "[REC] Could not write " << kRecordings << file.name;
  return false;
}

// A look finds nothing new in most cases, so this is called for what is new alone.
void TellOfCard(CardState::Report const& report) {
  bool const isGood = report.finding == CardState::Finding::Good;
  LogLine(isGood ? Info : Error) << "[REC] Card: " << CardState::Describe(report.finding) << ", "
                                 << report.errors << " errors, " << report.warnings << " warnings, "
                                 << report.controllerErrors << " of the controller";
}

}  // namespace

Recorder::Recorder(Settings const& chosen)
    : settings(chosen), system(*Quellon::System::GetInstance()) {}

void Recorder::Run() {
  KickWatchdog();
  if (!StartCard()) return;
  auto next = steady_clock::now();
  while (WaitUntil(catalogue == nullptr ? steady_clock::now() + kLongestPause : next)) {
    auto const begin = steady_clock::now();
    if (catalogue == nullptr && CardIsBack() && !StartCard()) return;
    clockFloor.SaveHourly();
    if (catalogue != nullptr && !Record() && WaitForLoad()) GiveUpCard();
    next = (settings.bytesPerSecond > 0 ? begin : steady_clock::now()) + settings.period;
  }
  if (catalogue != nullptr) LeaveCard();
  clockFloor.Save();
  LogLine(Info) << "[REC] Stopped";
}

// False when the machine is about to reboot.
bool Recorder::StartCard() {
  cardWasOut = false;
  Disk* const disk = InitDisk();
  if (disk == nullptr) return false;
  LogLine(Info) << "[REC] Health " << system.GetHealthReport();
  RaiseClock(disk->available);
  if (disk->available) {
    system.SaveSDCardStatusCounter(0);
    OpenCatalogue(disk);
  } else {
    LogLine(Error) << "[REC] No usable card, going on without recordings";
  }
  return true;
}

Disk* Recorder::InitDisk() {
  Quellon::BackgroundKicks const kicks(watchdog, kLongestCheck);
  Quellon::DiskUtils::CheckUnlessMountable();
  return system.InitDisk();
}

// After the health report, which tells of a clock that begins anew.
void Recorder::RaiseClock(bool hasCard) {
  auto const outcome = clockFloor.Apply(hasCard ? kRecordings : "");
  if (outcome.result == ClockFloor::Result::Kept) return;
  LogLine(Warning) << "[REC] Clock at " << outcome.from << ", at least " << outcome.to << ": "
                   << ClockFloor::Describe(outcome.result);
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
  load = std::make_unique<BackgroundLoad>(*catalogue);
  watch = std::make_unique<Quellon::DiskUtils::CardWatch>(
      *disk, [this](CardState::Report const& report) {
        if (report.finding == CardState::Finding::Gone) cardWasOut = true;
        TellOfCard(report);
      });
}

// A card that is put back later must not find the old one still mounted. No load may be running.
void Recorder::GiveUpCard() {
  watch.reset();
  load.reset();
  catalogue.reset();
  system.disk->Umount();
  LogLine(Info) << "[REC] Card released";
}

// A load has the card in use, and nothing ends it but the end of the process: with that the card is
// unmounted, too.
void Recorder::LeaveCard() {
  if (!IsLoading()) return GiveUpCard();
  watch.reset();
  umount2(system.disk->mountPoint.c_str(), MNT_DETACH);
  LogLine(Info) << "[REC] Card released when the process ends";
}

// A card that failed is not tried again before it was out of its slot: each try may end in a
// reboot.
bool Recorder::CardIsBack() {
  bool const answers = CardAnswers();
  if (!answers) cardWasOut = true;
  return cardWasOut && answers;
}

// While the catalogue is loaded, a full card waits for it.
bool Recorder::Record() {
  if (!watch->IsUsable()) return false;
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

// False when the service is to stop before the load is over.
bool Recorder::WaitForLoad() {
  while (IsLoading()) {
    if (!Pause(kLongestPause)) return false;
  }
  return true;
}

bool Recorder::FinishLoad() {
  if (load == nullptr) return true;
  std::unique_ptr<BackgroundLoad> const over = std::move(load);
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
    std::string const stem = file->name.substr(0, file->name.rfind('.'));
    (file->extension == ".gps" ? positions : recordings).insert(stem);
  }
  for (auto const& stem : positions) {
    std::string name = stem + ".gps";
    if (!recordings.contains(stem)) catalogue->RemoveFileByName(name);
  }
}

// Both files are on the card before they count, since what is complete must survive a power cut.
// The first `Sync` brings both there: each would cost the card a commit of the journal.
bool Recorder::WriteFiles() {
  Quellon::DiskUtils::CardDirectory const directory(kRecordings, kPartition);
  std::string path;
  do {  // numbers that began anew may meet old recordings
    number = number % kLastNumber + 1;
    path = directory.Path() + RecordingName(number, ".dat");
  } while (access(path.c_str(), F_OK) == 0);
  std::string positionsPath = directory.Path() + RecordingName(number, ".gps");
  Ifile recording(path, false);
  Ifile positions(positionsPath, false);
  std::size_t bytes = 0;
  if (!WriteSteadily(recording, bytes)) return CouldNotWrite(recording);
  std::string slice = Slice(positions);
  positions.Open(false);
  Write(positions, slice, kPositionsBytes);
  if (!WriteBack(positions)) return CouldNotWrite(positions);
  return Complete(recording, bytes) && Complete(positions, kPositionsBytes);
}

// Writes until the recording is whole, or ends it where the service is to stop. What was written is
// brought to the card every second, so that a power cut costs no more than that.
bool Recorder::WriteSteadily(Ifile& file, std::size_t& written) {
  std::string slice = Slice(file);
  auto const rate = settings.bytesPerSecond;
  auto const begin = steady_clock::now();
  auto safe = begin;
  file.Open(false);
  while (written < settings.recordingBytes) {
    std::chrono::microseconds const due(rate == 0 ? 0 : 1'000'000ULL * written / rate);
    if (written > 0 && !WaitUntil(begin + due)) return true;
    Write(file, slice, settings.recordingBytes - written);
    written += std::min(slice.size(), settings.recordingBytes - written);
    if (steady_clock::now() - safe < kLongestUnsafe) continue;
    if (!watch->IsUsable() || !file.Sync()) return false;
    safe = steady_clock::now();  // a card may take longer than that
    KickWatchdog();
  }
  return true;
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

// Ends early when the card is lost. False when the service is to stop.
bool Recorder::WaitUntil(steady_clock::time_point end) {
  while (true) {
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    if (!Pause(std::clamp<std::chrono::milliseconds>(left, {}, kLongestPause))) return false;
    if (left <= kLongestPause || (watch != nullptr && !watch->IsUsable())) return true;
  }
}

// Looks after what must not wait. False when the service is to stop.
bool Recorder::Pause(std::chrono::milliseconds length) {
  KickWatchdog();
  isStopping = isStopping || stop.WaitFor(length);
  return !isStopping;
}

// A load that hangs is the watchdog's to end. A watchdog that is not there, or that somebody else
// has, may come.
void Recorder::KickWatchdog() {
  if (load != nullptr && load->Hangs()) return;
  auto const now = steady_clock::now();
  if (now < nextKick) return;
  auto const result = watchdog.IsOpen() ? watchdog.Kick() : watchdog.Open(settings.watchdogSeconds);
  nextKick = now + watchdog.GetKickPeriod();
  if (std::exchange(watchdogState, result) != result) TellOfWatchdog();
}

void Recorder::TellOfWatchdog() const {
  if (watchdogState != WatchdogGuard::Result::Done) {
    LogLine(Error) << "[REC] Watchdog: " << WatchdogGuard::Describe(watchdogState);
    return;
  }
  LogLine(Info) << "[REC] Watchdog " << watchdog.GetDriver() << ", " << watchdog.GetTimeout()
                << " s";
  if (watchdog.IsStoppedByClose()) {
    LogLine(Warning) << "[REC] The watchdog stops when the service ends";
  }
}
