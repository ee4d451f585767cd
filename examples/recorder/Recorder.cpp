#include "Recorder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string_view>
#include <utility>
#include <vector>

#include "DiskUtils/CardDirectory.h"
#include "DiskUtils/CheckUnlessMountable.h"
#include "SysUtil/ServiceManager.h"
#include "Watchdog/BackgroundKicks.h"
#include "base/IException.h"
#include "base/Logger.h"

using Quellon::WatchdogGuard;
using Quellon::DiskUtils::CardDirectory;
using Quellon::DiskUtils::CardState;
using Quellon::FileUtils::Ifile;
using std::chrono::steady_clock;
using Tarvik::Ilog::LogLine;
using enum Tarvik::Ilog::LogType;

namespace {

constexpr char const* kPartition = "/dev/mmcblk1p1";
constexpr char const* kRecordings = "/mnt/sdcard/cr/";
constexpr std::string_view kPrefix = "rec_";
constexpr int kLastNumber = 999999;  // six digits; then they begin anew
constexpr std::size_t kPositionsBytes = 1024;
constexpr std::size_t kSlice = std::size_t{64} << 10;  // bytes that are written at once
constexpr int kFailureLimit = 2;                       // recordings in a row
constexpr std::chrono::minutes kLongestStart(30);
constexpr std::chrono::minutes kLongestDeletion(5);
constexpr std::chrono::milliseconds kLongestPause(1000);  // between two kicks, where they are due

// A little less than the second that a power cut may cost: it takes a moment until what was
// recorded is on the card.
constexpr std::chrono::milliseconds kLongestUnsafe(900);

// What the card alone can be at fault for; EXDEV is the recordings' directory that is not on it.
constexpr std::array kFaultsOfCards = {EIO, EROFS, ENODEV, ENXIO, EUCLEAN, EBADMSG, EXDEV};

std::string RecordingName(int number, char const* extension) {
  return std::string(kPrefix) + std::to_string(kLastNumber + 1 + number).substr(1) + extension;
}

// Whether the card itself, and not the kernel's memory of it, can be read.
bool CardAnswers() {
  alignas(4096) std::array<char, 4096> block;  // direct reads go by whole, aligned blocks
  Tarvik::UniqueFd const card(open(kPartition, O_RDONLY | O_DIRECT | O_CLOEXEC));
  return card.IsOpen() && read(card.Get(), block.data(), block.size()) == std::ssize(block);
}

// A link counts, wherever it leads.
bool Exists(std::string const& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// Whether the card can hold a recording and its positions, however small they are: a file system is
// made with so many inodes, which small files use up before its blocks.
bool HasInodes() {
  struct statvfs space {};
  return statvfs(kRecordings, &space) != 0 || space.f_ffree >= 2;
}

// Each file holds its own name again and again, so that anybody can see whether it is intact.
std::string Slice(Ifile const& file, std::size_t least) {
  std::string slice;
  while (slice.size() < least) slice += file.name + "\n";
  return slice;
}

// Gives what was written its place on the card and writes it there, without a commit of the journal
// of its own. The kernel tells of a failure once: here, and no more in `Sync`.
bool WriteBack(Ifile& file) {
  constexpr unsigned int kAndWait = SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  file.Close();
  if (!file.stream->good()) return false;
  Tarvik::UniqueFd const fd(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
  return fd.IsOpen() && sync_file_range(fd.Get(), 0, 0, kAndWait) == 0;
}

}  // namespace

Recorder::Recorder(Settings const& chosen)
    : settings(chosen), system(*Quellon::System::GetInstance()) {}

// By a lock on what is never unmounted: an open file keeps its file system from that. What cannot
// be locked for another reason must not keep the device from recording.
bool Recorder::IsAlone() {
  lock = Tarvik::UniqueFd(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (flock(lock.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
  LogLine(Error) << "[REC] Another recorder is running";
  return false;
}

void Recorder::Run() {
  KickWatchdog();
  bool const goesOn = StartCard();
  Quellon::SysUtil::NotifyServiceManager("READY=1");
  if (!goesOn) return;
  auto next = steady_clock::now();
  while (WaitUntil(watch == nullptr ? steady_clock::now() + kLongestPause : next)) {
    auto const begin = steady_clock::now();
    if (watch == nullptr && CardIsBack() && !StartCard()) return;
    clockFloor.SaveHourly();
    if (watch != nullptr) RecordOrGiveUp();
    next = (settings.bytesPerSecond > 0 ? begin : steady_clock::now()) +
           std::chrono::milliseconds(settings.periodMilliseconds);
  }
  if (watch != nullptr) GiveUpCard();
  clockFloor.Save();
  LogLine(Info) << "[REC] Stopped";
}

// False when the machine is about to reboot.
bool Recorder::StartCard() {
  Quellon::BackgroundKicks const kicks(watchdog, kLongestStart);
  cardWasOut = false;
  failures = 0;
  Quellon::DiskUtils::CheckUnlessMountable();
  auto const* const disk = system.InitDisk();
  if (disk == nullptr) return false;
  LogLine(Info) << "[REC] Health " << system.GetHealthReport();
  // After the report, which tells of a clock that begins anew.
  auto const clock = clockFloor.Apply(disk->available ? kRecordings : "");
  if (clock.result != Quellon::RTC::ClockFloor::Result::Kept)
    LogLine(Warning) << "[REC] Clock at " << clock.from << ", at least " << clock.to << ": "
                     << Quellon::RTC::ClockFloor::Describe(clock.result);
  if (disk->available) {
    system.SaveSDCardStatusCounter(0);
    watch = std::make_unique<Quellon::DiskUtils::CardWatch>(
        *system.disk, [this](auto const& report) { TellOfCard(report); });
  } else {
    LogLine(Error) << "[REC] No usable card, going on without recordings";
  }
  return true;
}

// Called on the thread of the watch.
void Recorder::TellOfCard(CardState::Report const& report) {
  if (report.finding == CardState::Finding::Gone) cardWasOut = true;
  bool const isGood = report.finding == CardState::Finding::Good;
  LogLine(isGood ? Info : Error) << "[REC] Card: " << CardState::Describe(report.finding) << ", "
                                 << report.errors << " errors, " << report.warnings << " warnings, "
                                 << report.controllerErrors << " of the controller";
}

// A card that is put back later must not find the old one still mounted. One that is in use, by
// others or by a load, is unmounted when they end; a load does not before the process. The same
// where something was mounted over the card, which is what the first call unmounts.
void Recorder::GiveUpCard() {
  watch.reset();
  if (ForgetCatalogue()) system.disk->Umount();
  bool const isInUse = umount2(system.disk->mountPoint.c_str(), MNT_DETACH) == 0;
  LogLine(Info) << "[REC] Card released" << (isInUse ? " when nobody uses it any more" : "");
}

// A card that failed is not tried again before it was out of its slot: each try may end in a
// reboot.
bool Recorder::CardIsBack() {
  bool const answers = CardAnswers();
  if (!answers) cardWasOut = true;
  return cardWasOut && answers;
}

// A card is given up that nobody can write any more, or that two recordings in a row fail on for a
// reason that none but a card can be. Any other reason passes, and costs the recordings until then.
void Recorder::RecordOrGiveUp() {
  isCardAtFault = false;
  if (watch->IsUsable() && !Record()) Pause(kLongestPause);  // however short the period is
  failures = isCardAtFault ? failures + 1 : 0;
  if ((failures == kFailureLimit || !watch->IsUsable()) && WaitForLoad()) GiveUpCard();
}

// Where somebody has removed the directory, or put a link in its place, the catalogue is opened
// anew: what a link leads to is not to be deleted for want of room. The same where the catalogue
// fails: what could not be deleted is not in it any more. While it is loaded, a full card waits.
bool Recorder::Record() try {
  if (!CardDirectory(kRecordings, kPartition).IsOpen() && !ForgetCatalogue())
    return Fail("[REC] Could not read ", kRecordings);
  if (!IsLoading() && !FinishLoad() && !OpenCatalogue()) return false;
  if (IsLoading() && HasInodes() && catalogue->CheckAvailableSpace(true)) return WriteFiles();
  return WaitForLoad() && FinishLoad() && watch->IsUsable() && MakeRoom() && WriteFiles();
} catch (Tarvik::IException const& e) {
  LogLine(Error) << "[REC] " << e.what();
  ForgetCatalogue();
  return false;
}

// The directory is made where it is missing, on the card, which somebody may have unmounted. The
// catalogue is loaded while recording begins: that needs but the next number.
bool Recorder::OpenCatalogue() {
  Quellon::BackgroundKicks const kicks(watchdog, kLongestStart);
  CardDirectory const card(system.disk->mountPoint, kPartition);
  std::string const path = card.Path() + "cr";
  bool const isThere = card.IsOpen() && (mkdir(path.c_str(), 0775) == 0 || errno == EEXIST);
  if (!isThere || !FindLastNumber()) return Fail("[REC] Could not read ", kRecordings);
  auto const least = std::max<unsigned long long>(settings.minimumFreeBytes,
                                                  settings.recordingBytes + kPositionsBytes);
  catalogue = std::make_unique<Quellon::FileUtils::FilesManager>(system.disk, kRecordings, least,
                                                                 settings.share);
  load = std::make_unique<Quellon::FileUtils::BackgroundLoad>(*catalogue);
  return true;
}

// False while it is being loaded.
bool Recorder::ForgetCatalogue() {
  if (IsLoading()) return false;
  load.reset();
  catalogue.reset();
  return true;
}

// By `errno`.
bool Recorder::Fail(char const* what, std::string const& where) {
  int const error = watch->IsUsable() ? errno : ECANCELED;  // why is told of the card
  isCardAtFault = isCardAtFault || std::ranges::count(kFaultsOfCards, error) > 0;
  LogLine(Error) << what << where << ": " << std::strerror(error);
  return false;
}

// False when the service is to stop before the load is over.
bool Recorder::WaitForLoad() {
  while (IsLoading() && Pause(kLongestPause)) continue;
  return !IsLoading();
}

bool Recorder::FinishLoad() {
  if (load == nullptr) return catalogue != nullptr;
  auto const over = std::move(load);
  if (!over->Finish()) throw Tarvik::IException(catalogue->GetError());
  LogLine(Info) << "[REC] Catalogue of " << catalogue->GetList().size() << " files, "
                << catalogue->GetTotalFilesSize() << " bytes";
  return true;
}

// A card that lets nothing be deleted is tried with each of its files, which takes 150 ms each.
bool Recorder::MakeRoom() {
  Quellon::BackgroundKicks const kicks(watchdog, kLongestDeletion);
  auto& files = catalogue->GetList();
  std::vector<std::string> names;
  for (Ifile const* file : files) names.push_back(file->name);
  while (!HasInodes() && catalogue->DeleteOldFiles(1) > 0) continue;
  if (!catalogue->MakeRoom()) throw Tarvik::IException(catalogue->GetError());
  if (files.size() == names.size()) return true;
  catalogue->GetTotalFilesSize(true);  // not what others had deleted
  std::erase_if(names, [](std::string const& name) { return Exists(kRecordings + name); });
  LogLine(Info) << "[REC] Deleted " << names.size() << " oldest recordings";
  RemoveOrphanedPositions();
  return true;
}

// The library never deletes positions by age; here they go with their recording.
void Recorder::RemoveOrphanedPositions() {
  for (Ifile* file : std::list(catalogue->GetList())) {
    if (!file->name.starts_with(kPrefix) || !file->name.ends_with(".gps")) continue;
    auto const recording = kRecordings + file->name.substr(0, file->name.rfind('.')) + ".dat";
    if (!Exists(recording)) catalogue->RemoveFileByName(file->name);
  }
}

// Both files are on the card before they count, since what is complete must survive a power cut.
// The first `Sync` brings both there: each would cost the card a commit of the journal.
bool Recorder::WriteFiles() {
  CardDirectory const directory(kRecordings, kPartition);
  if (!directory.IsOpen()) return Fail("[REC] Could not read ", kRecordings);
  std::string path;
  std::string positionsPath;
  do {  // numbers that began anew may meet old recordings, or links that lead out of the card
    number = number % kLastNumber + 1;
    path = directory.Path() + RecordingName(number, ".dat");
    positionsPath = directory.Path() + RecordingName(number, ".gps");
  } while (Exists(path) || Exists(positionsPath));
  Ifile recording(path, false);
  Ifile positions(positionsPath, false);
  std::size_t bytes = 0;
  if (!WriteSteadily(recording, bytes)) return CouldNotWrite(recording);
  positions.Open(false);
  positions.Write(Slice(positions, kPositionsBytes).data(), kPositionsBytes);
  bool const hasPositions = WriteBack(positions) || CouldNotWrite(positions);
  return Complete(recording, bytes) && hasPositions && Complete(positions, kPositionsBytes);
}

// Writes until the recording is whole, or ends it where the service is to stop. What was written is
// brought to the card every second, so that a power cut costs no more than that.
bool Recorder::WriteSteadily(Ifile& file, std::size_t& written) {
  auto const rate = settings.bytesPerSecond;
  std::string slice = Slice(file, rate == 0 ? kSlice : std::min(kSlice, rate / 32 + 1));
  auto const begin = steady_clock::now();
  auto safe = begin;
  file.Open(false);
  while (written < settings.recordingBytes) {
    std::chrono::microseconds const due(rate == 0 ? 0 : 1'000'000ULL * written / rate);
    if (written > 0 && !WaitUntil(begin + due)) return true;
    auto const bytes = std::min(slice.size(), settings.recordingBytes - written);
    file.Write(slice.data(), static_cast<unsigned int>(bytes));
    if (!file.stream->good() || !watch->IsUsable()) return false;
    written += bytes;
    if (steady_clock::now() - safe < kLongestUnsafe) continue;
    if (!file.Sync()) return false;
    safe = steady_clock::now();  // a card may take longer than that
    KickWatchdog();
  }
  return true;
}

// What there is of it, if anything, is deleted with the oldest.
bool Recorder::CouldNotWrite(Ifile& file) {
  Fail("[REC] Could not write ", kRecordings + file.name);
  if (Exists(file.path)) AddFile(file.name);
  return false;
}

bool Recorder::Complete(Ifile& file, std::size_t bytes) {
  if (!file.Sync() || !AddFile(file.name)) return CouldNotWrite(file);
  LogLine(Info) << "[REC] Recorded " << file.name << " " << bytes << " bytes";
  return true;
}

bool Recorder::AddFile(std::string name) {
  if (load != nullptr) load->Add(name);
  return load != nullptr || catalogue->AddFile(name);
}

// False when the names cannot be read to the last: the next recording might overwrite one. Also
// when a link in the place of the directory leads out of the card: what is there is not to be
// deleted for want of room.
bool Recorder::FindLastNumber() {
  number = 0;
  CardDirectory const held(kRecordings, kPartition);
  std::unique_ptr<DIR, int (*)(DIR*)> const directory(
      held.IsOpen() ? opendir(held.Path().c_str()) : nullptr, closedir);
  if (directory == nullptr) return false;
  for (errno = 0; dirent const* const entry = readdir(directory.get()); errno = 0) {
    if (!std::string_view(entry->d_name).starts_with(kPrefix)) continue;
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
// has, may come. The first kick comes before the card; with each of the others systemd is told
// again that the service is ready, as what it does not take at once is lost.
void Recorder::KickWatchdog() {
  if ((load != nullptr && load->Hangs()) || steady_clock::now() < nextKick) return;
  auto const result = watchdog.IsOpen() ? watchdog.Kick() : watchdog.Open(settings.watchdogSeconds);
  bool const isFirst = nextKick == steady_clock::time_point();
  Quellon::SysUtil::NotifyServiceManager(isFirst ? "WATCHDOG=1" : "READY=1\nWATCHDOG=1");
  nextKick = steady_clock::now() + watchdog.GetKickPeriod();
  if (std::exchange(watchdogState, result) != result) TellOfWatchdog();
}

void Recorder::TellOfWatchdog() {
  if (watchdogState != WatchdogGuard::Result::Done) {
    LogLine(Error) << "[REC] Watchdog: " << WatchdogGuard::Describe(watchdogState);
    return;
  }
  LogLine(Info) << "[REC] Watchdog " << watchdog.GetDriver() << ", " << watchdog.GetTimeout()
                << " s";
  if (watchdog.KeepOpenAfterEnd() != WatchdogGuard::Result::Done)
    LogLine(Warning) << "[REC] The watchdog stops when the service ends";
}
