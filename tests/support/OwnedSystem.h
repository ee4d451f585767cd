// `System`, for tests that need a new one each.
#pragma once

#include <memory>

#include "DiskUtils/Disk.h"
#include "DiskUtils/System.h"
#include "tests/support/Capture.h"

/// In service it never goes, nor does the card it owns.
class OwnedSystem : public Quellon::System {
 public:
  OwnedSystem() = default;
  ~OwnedSystem() override { delete disk; }
};

/// One that has announced itself out of sight.
inline std::unique_ptr<OwnedSystem> NewSystem() {
  Capture::Descriptor const hidden(1);
  return std::make_unique<OwnedSystem>();
}
