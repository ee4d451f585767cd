// The card in use, looked at on a thread of its own.
#pragma once

#include <atomic>
#include <functional>

#include "DiskUtils/CardState.h"
#include "base/Export.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"

namespace Quellon::DiskUtils {

/// Looks at the card each second, on a thread of its own: a card that hangs keeps whoever writes to
/// it, and is told of all the same.
///
/// Make one after each start of the card, and end it before the next. Any thread may ask it. Logs
/// nothing else by itself. Kernel interface: that of `CardState`.
class QUELLON_EXPORT CardWatch : public Tarvik::Interfaces::IThread {
 public:
  /// Called with a report whose finding is another one than that of the last look, or than `Good`
  /// at first; on the thread of the watch, which it must not keep for long. An empty one is not
  /// called; what it throws is logged, and the watch goes on.
  using Tell = std::function<void(CardState::Report const&)>;

  /// Begins to look at the card of `disk`, which may go before this object. Throws
  /// std::system_error when the system has no thread to give.
  CardWatch(Disk const& disk, Tell tell);
  CardWatch(CardWatch const&) = delete;
  CardWatch& operator=(CardWatch const&) = delete;
  /// Waits for the call of `tell` that is under way.
  ~CardWatch() override;

  /// Whether the card could still be written to, by the last look: it is not gone, not unmounted
  /// and not read-only. One that hangs counts as usable, since it may recover.
  [[nodiscard]] bool IsUsable() const noexcept;

 private:
  void Run() override;
  void Stopping() override;

  CardState state;
  Tell const tell;
  std::atomic<CardState::Finding> finding = CardState::Finding::Good;
  Tarvik::Interfaces::ISemaphore over;
};

}  // namespace Quellon::DiskUtils
