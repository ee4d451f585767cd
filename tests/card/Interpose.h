// Calls that the tests keep from the machine. The library's calls come here because the test
// program defines the functions itself: `reboot`, `nanosleep` and `system`.
#pragma once

#include <string>
#include <vector>

namespace CardTests {

/// What was asked for and not done, in order: "system reboot" for that shell command, "sleep 20000
/// ms" for a pause (usleep(3) goes its own way and is slept), "reboot 0x1234567" for the system
/// call, which then fails.
std::vector<std::string> MachineCalls();

void ForgetMachineCalls();

}  // namespace CardTests
