// File streams that convert nothing.
#pragma once

#include <locale>

#include "base/internal/StandardDescriptors.h"

namespace Tarvik {

/// A file stream, such as std::ifstream, that neither converts bytes nor parses by the locale that
/// the application has made the global one. It never is the standard output of a process that has
/// closed its own.
template <typename Stream>
class ByteFile : public Stream {
 public:
  /// Opens the file as the base's open() does with these arguments.
  template <typename... Arguments>
  explicit ByteFile(Arguments const&... arguments) {
    OccupyStandardDescriptors();
    this->imbue(std::locale::classic());
    this->open(arguments...);
  }
};

}  // namespace Tarvik
