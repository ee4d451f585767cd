#include "tests/support/RecorderTest.h"

#include <fcntl.h>

// The recorder's own call: its source is a part of the test's program.
extern "C" int sync_file_range(int /*fd*/, off64_t /*offset*/, off64_t /*count*/,
                               unsigned int /*flags*/) {
  if (RecorderTest::writesBack) return 0;
  errno = EIO;
  return -1;
}
