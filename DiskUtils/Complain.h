// Complaints that nobody waits for.
#pragma once

namespace Quellon::DiskUtils {

/// perror(3) where standard error takes it at once; else the complaint is lost. A pipe that nobody
/// reads or a halted serial line must not keep the machine from its restart.
void Complain(char const* what);

}  // namespace Quellon::DiskUtils
