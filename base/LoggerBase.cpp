#include "base/LoggerBase.h"

#include <ctime>
#include <locale>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>

#include "base/Date.h"
#include "base/Logger.h"
#include "base/TemperatureMonitor.h"
#include "base/internal/Decimal.h"

namespace Tarvik::Ilog {

namespace {

constexpr char const* kTimeFormat = "%Y-%m-%d %H:%M:%S";

constexpr auto kPlainFormat = std::ios::skipws | std::ios::dec;

}  // namespace

// Whatever the application's locale, numbers in the log are plain.
template <typename Policy>
LoggerBase<Policy>::LoggerBase() {
  stream.imbue(std::locale::classic());
}

template <typename Policy>
void LoggerBase<Policy>::WriteHeader(LogType type) {
  if (!IsEnabled()) {
    DropLine();
    return;
  }
  RequireNoLine();
  BeginLine(type);
}

template <typename Policy>
void LoggerBase<Policy>::BeginLine(LogType type) {
  std::unique_lock lock(lineLock);
  lineLock.AssertHeld();
  if constexpr (requires { policy.WriteHeader(type); }) policy.WriteHeader(type);
  AppendTime();
  AppendTemperature();
  AppendTag(type);
  KeepLine(lock);
}

// Takes part in a line that begins on the other sink. Should the line become this sink's own, a
// usual one needs no memory any more: the line may tell that there is none.
template <typename Policy>
void LoggerBase<Policy>::JoinLine() {
  constexpr std::size_t kUsualLine = 512;
  std::unique_lock lock(lineLock);
  lineLock.AssertHeld();
  line.Reserve(kUsualLine);
  KeepLine(lock);
}

// The lock is kept until the line is written: see Release().
template <typename Policy>
void LoggerBase<Policy>::KeepLine(std::unique_lock<Mutex>& lock) noexcept {
  lineOwner.store(std::this_thread::get_id(), std::memory_order_relaxed);
  lock.release();
}

// A disabled sink ignores everything, the beginning of the line under way included.
template <typename Policy>
inline bool LoggerBase<Policy>::GoesOn() noexcept {
  if (!HoldsLine()) return false;
  lineLock.AssertHeld();
  if (isShared) Logger::GetInstance()->SeparateLines();
  if (IsEnabled()) return true;
  Release();
  return false;
}

template <typename Policy>
bool LoggerBase<Policy>::TakesPart() noexcept {
  if (!GoesOn()) return false;
  isStreamUsed = true;
  return true;
}

template <typename Policy>
void LoggerBase<Policy>::RefuseLine() {
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
}

// Formatting a calendar date costs more than all the rest of a line, so it is done once a second.
template <typename Policy>
void LoggerBase<Policy>::AppendTime() {
  time_t const now = time(nullptr);
  if (now != stampSecond || stamp.empty()) {
    stamp = "[" + Util::NewDate(kTimeFormat) + "]";
    stampSecond = now;
  }
  AppendText(stamp);
}

template <typename Policy>
void LoggerBase<Policy>::AppendTemperature() {
  auto const* monitor = Util::TemperatureMonitor::GetInstance();
  if (monitor->valid) stream << "[" << monitor->temperature.load() << "C]";
}

template <typename Policy>
void LoggerBase<Policy>::AppendTag(LogType type) {
  if (type == Error) {
    AppendText("[ERROR]");
  } else if (type == Warning) {
    AppendText("[WARNING]");
  }
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(long const& t) {
  if (GoesOn()) stream << Util::Date(t, kTimeFormat);
  return *this;
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(char const* text) {
  if (!GoesOn()) return *this;
  if (text != nullptr) {
    AppendText(text);
  } else {
    stream.setstate(std::ios::badbit);
  }
  return *this;
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(std::string_view text) {
  if (GoesOn()) AppendText(text);
  return *this;
}

// Most of a line is text that nobody asked to be filled up to a width, and needs no formatting.
template <typename Policy>
inline void LoggerBase<Policy>::AppendText(std::string_view text) {
  if (stream.width() != 0 || !stream.good()) {
    stream << text;
  } else if (!line.Append(text)) {
    stream.setstate(std::ios::badbit);
  }
}

template <typename Policy>
template <typename Number>
void LoggerBase<Policy>::AppendNumber(Number number) {
  if (stream.flags() != kPlainFormat) {
    stream << number;
    return;
  }
  AppendText(Decimal(number).View());
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(std::ostream& (*manipulator)(std::ostream&)) {
  if (!TakesPart()) return *this;
  stream << manipulator;
  if (EndsWithNewline()) manipulatedLength = line.View().size();
  return *this;
}

template <typename Policy>
bool LoggerBase<Policy>::EndsWithNewline() const noexcept {
  return line.View().ends_with('\n');
}

template <typename Policy>
void LoggerBase<Policy>::CheckEndOfStream() {
  if (!GoesOn()) return;
  if (EndsWithNewline()) {
    WriteLine();
  } else if (!stream.good()) {
    EndLine();  // the stream takes no newline either, and the line would never end
  }
}

template <typename Policy>
void LoggerBase<Policy>::WriteLine() {
  if constexpr (requires { Policy::kLongestLine; }) line.Cut(Policy::kLongestLine, " [cut]\n");
  WriteLine(line.View());
}

// Signals the line and takes the signal back at once: no other thread writes it. This one holds the
// lock, which no other may release, and must not go on before the kernel has the line.
template <typename Policy>
void LoggerBase<Policy>::WriteLine(std::string_view text) {
  lineReady.Notify();
  lineReady.Wait();
  if (!policy.Write(text)) enabled = false;
  Release();
}

template <typename Policy>
void LoggerBase<Policy>::EndLine() {
  if (!GoesOn()) return;
  bool const ended = line.View().size() == manipulatedLength;
  if (ended || line.Append("\n")) {
    WriteLine();
  } else {
    Release();  // no memory for the newline: the line is lost, the sink is not
  }
}

template <typename Policy>
void LoggerBase<Policy>::DropLine() noexcept {
  if (GoesOn()) Release();
}

template <typename Policy>
void LoggerBase<Policy>::Release() noexcept {
  line.Clear();
  manipulatedLength = 0;
  if (!stream.good()) stream.clear();
  if (isStreamUsed) ForgetFormat();
  isStreamUsed = false;
  isShared = false;
  lineOwner.store(std::thread::id(), std::memory_order_relaxed);
  lineLock.unlock();
}

// What a manipulator or a value of one line did to the stream must not change how the next one
// shows its numbers, nor let it throw.
template <typename Policy>
void LoggerBase<Policy>::ForgetFormat() noexcept {
  if (stream.exceptions() != std::ios::goodbit) stream.exceptions(std::ios::goodbit);
  if (stream.getloc() != std::locale::classic()) stream.imbue(std::locale::classic());
  stream.flags(kPlainFormat);
  stream.precision(6);
  stream.fill(' ');
  stream.width(0);
}

template <typename Policy>
void LoggerBase<Policy>::Flush() {
  if (!HoldsLine()) std::lock_guard const lock(lineLock);
}

template <typename Policy>
bool LoggerBase<Policy>::Close() noexcept requires requires(Policy& sinkPolicy) {
  sinkPolicy.Close();
}
{
  if (HoldsLine()) return false;
  std::unique_lock const lock(lineLock, std::try_to_lock);
  if (!lock.owns_lock()) return false;
  lineLock.AssertHeld();
  policy.Close();
  return true;
}

// In the child of a fork(2) only the forking thread lives on. A line that another thread had under
// way is never finished there, so a new sink is constructed in the old one's place.
template <typename Policy>
void LoggerBase<Policy>::RecoverInChild() noexcept {
  if (HoldsLine()) return;
  bool const taken = !lineLock.try_lock();
  if (!taken) lineLock.unlock();
  policy.Close();  // an inherited descriptor shares its position with the parent's
  if (!taken) return;
  bool const wasEnabled = IsEnabled();
  std::construct_at(this);
  enabled = wasEnabled;
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(int number) {
  if (GoesOn()) AppendNumber(number);
  return *this;
}

template <typename Policy>
LoggerBase<Policy>& LoggerBase<Policy>::operator<<(unsigned long long number) {
  if (GoesOn()) AppendNumber(number);
  return *this;
}

template class LoggerBase<FileLogPolicy>;
template class LoggerBase<ConsoleLogPolicy>;

}  // namespace Tarvik::Ilog
