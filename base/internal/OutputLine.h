// Lines on standard output.
#pragma once

#include <iostream>
#include <locale>
#include <ostream>

namespace Tarvik {

/// One line on standard output: `OutputLine() << "size " << size;`. It is ended and flushed with
/// the object. Numbers are plain whatever format and locale the application has left on std::cout,
/// which is not touched; where that stream is not good, nothing is printed. Needs no memory and
/// throws nothing, so it may tell of any failure.
class OutputLine {
 public:
  OutputLine() {
    stream.imbue(std::locale::classic());
    // Last: a stream hands its locale on to the buffer it has, and this one is the application's.
    stream.rdbuf(std::cout.good() ? std::cout.rdbuf() : nullptr);
  }
  OutputLine(OutputLine const&) = delete;
  OutputLine& operator=(OutputLine const&) = delete;
  ~OutputLine() { stream << std::endl; }

  /// Appends a piece as a standard output stream does that nobody has changed.
  template <typename Piece>
  OutputLine& operator<<(Piece const& piece) {
    stream << piece;
    return *this;
  }

 private:
  std::ostream stream{nullptr};
};

}  // namespace Tarvik
