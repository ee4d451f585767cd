// The guard of every program that mounts, formats or reboots.
#pragma once

namespace CardTests {

/// Ends the program, with the exit code of a skipped test and the reason on standard error, unless
/// it runs in the root that the script private_root makes. There all calls may reach the machine,
/// but for restarts and pauses.
void RequirePrivateRoot();

}  // namespace CardTests
