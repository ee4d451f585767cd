// The bench driver: exercises the services on the board itself. A program without a `main` that
// links to this library runs it.
#pragma once

#include "base/Export.h"

/// Makes the card's `Disk` and a catalogue of "/mnt/sdcard/cr/", loads, sorts and logs it. Returns
/// also without a card. Both objects are left to the end of the process.
QUELLON_EXPORT void FilesManagerTest();

/// Reads, prints, moves and restores the real-time clock "/dev/rtc0", and the system clock with
/// it; both end a few moments behind. Needs root.
QUELLON_EXPORT void TestRtc();
