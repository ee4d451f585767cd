// Error messages that are dropped rather than waited for.
#pragma once

namespace Quellon::DiskUtils {

/// perror(3) if poll(2) finds standard error ready, else nothing. A pipe that nobody reads or a
/// halted serial line must not keep the machine from its restart.
void Complain(char const* what);

}  // namespace Quellon::DiskUtils
