// The card's health as other services of the device read it.
#pragma once

#include <string>

#include "base/Export.h"
#include "base/Json.h"

namespace Quellon {

/// The health summary: one JSON object, a snapshot that the last report recorded. It does not
/// change by itself, as when the card is pulled: `System::BuildDiskHealthReport` says how to bring
/// it up to date. Not locked: read it while no report is being built.
class QUELLON_EXPORT HealthStatus {
 public:
  HealthStatus();
  HealthStatus(HealthStatus const&) = default;
  HealthStatus& operator=(HealthStatus const&) = default;
  virtual ~HealthStatus();

  /// The summary as JSON text.
  [[nodiscard]] std::string ToText() const;

  /// "rtc-have-been-reset" 1 once the clock was found at the epoch; "zf" exit code of the last
  /// file-system check; "zi" the card's CID; "zr" its state (0 good, 1 malfunction, 2 read-only,
  /// 3 absent or unusable); "zs" its size and "zl" its lifetime writes in GiB (integer 0 when
  /// unknown); "f" the firmware. Empty before the first report.
  Tarvik::Json::Object status;
};

}  // namespace Quellon
