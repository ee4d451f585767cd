// File streams that hold what the file holds.
#pragma once

#include <locale>

namespace Tarvik {

/// A file stream, such as std::ifstream, that neither converts bytes nor parses by the locale that
/// the application has made the global one. Opened by its constructor, as its base is.
template <typename Stream>
class ByteFile : public Stream {
 public:
  template <typename... Arguments>
  explicit ByteFile(Arguments const&... arguments) {
    this->imbue(std::locale::classic());
    this->open(arguments...);
  }
};

}  // namespace Tarvik
