// How a file system is marked that was made for a card and not used yet.
#pragma once

namespace Quellon::DiskUtils {

/// Stands where ext keeps the directory that it was mounted on last. The kernel puts the real one
/// there when a file is opened.
inline constexpr char const* kNewMark = "being-prepared";

}  // namespace Quellon::DiskUtils
