// The facade, for tests that need a new one each.
#pragma once

#include "DiskUtils/Disk.h"
#include "DiskUtils/System.h"

/// In service the facade never goes, nor does the card it owns.
class OwnedSystem : public Quellon::System {
 public:
  OwnedSystem() = default;
  ~OwnedSystem() override { delete disk; }
};
