#include "DiskUtils/HealthStatus.h"

namespace Quellon {

HealthStatus::HealthStatus() = default;
HealthStatus::~HealthStatus() = default;

std::string HealthStatus::ToText() const {
  return Tarvik::Json::Serialize(status);
}

}  // namespace Quellon
