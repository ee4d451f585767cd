#include "DiskUtils/HealthStatus.h"

namespace Quellon {

HealthStatus::HealthStatus() = default;
HealthStatus::~HealthStatus() = default;

std::string HealthStatus::ToText() const {
  return status.ToText();
}

}  // namespace Quellon
