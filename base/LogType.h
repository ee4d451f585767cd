// How grave a line of the log is.
#pragma once

namespace Tarvik::Ilog {

/// How grave a line is. Any other value is written as `Info`, without a tag.
enum LogType : int {
  Info = 0,
  Warning = 1,  ///< tagged "[WARNING]"
  Error = 2,    ///< tagged "[ERROR]"
};

}  // namespace Tarvik::Ilog
