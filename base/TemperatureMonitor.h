// The board's temperature, read now and then in the background.
#pragma once

#include <atomic>

#include "base/Export.h"
#include "base/ISemaphore.h"
#include "base/IThread.h"

namespace Tarvik::Util {

/// Process-wide monitor of the board temperature. While started, its thread reads
/// "/sys/class/thermal/thermal_zone0/temp" every 10 seconds. The two fields may be read from any
/// thread without a lock; they are set one after the other, so a reader may see a fresh `valid`
/// beside an older `temperature`.
class QUELLON_EXPORT TemperatureMonitor : public Interfaces::IThread {
 public:
  /// The single monitor; never null, never destroyed.
  static TemperatureMonitor* GetInstance();

  TemperatureMonitor();
  ~TemperatureMonitor() override;

  // Binary interface: these fields keep their order.
  std::atomic<bool> valid = false;   ///< whether the last reading succeeded; false before `Start()`
  std::atomic<int> temperature = 0;  ///< degrees Celsius, rounded toward zero

 protected:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override;
  void Stopping() override;

 private:
  void Read();

  Interfaces::ISemaphore stop;
};

}  // namespace Tarvik::Util
