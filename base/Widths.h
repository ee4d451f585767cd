// How wide times are. This is the header of the source tree; the one that is installed was made by
// the build, and tells its widths whatever an application says.
#pragma once

/// 1 where times and file sizes have 64 bits although `long` has 32, else 0: they are as wide as
/// `long` then. The build defines it.
#ifndef QUELLON_TIME64
#define QUELLON_TIME64 0
#endif
