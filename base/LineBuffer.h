// The text of a log line under way.
#pragma once

#include <exception>
#include <streambuf>
#include <string>
#include <string_view>

namespace Tarvik::Ilog {

/// What a stream writes, as one text. A string stream's own buffer can only be emptied by replacing
/// its text, and asks for its bounds at every piece; that costs more than the pieces themselves.
class LineBuffer : public std::streambuf {
 public:
  [[nodiscard]] std::string_view View() const noexcept { return text; }

  /// False, with nothing appended, when there is no memory for it.
  bool Append(std::string_view piece) noexcept try {
    text += piece;
    return true;
  } catch (std::exception const&) {
    return false;
  }

  /// Empties the text but keeps its memory for the next line.
  void Clear() noexcept { text.clear(); }

 protected:
  std::streamsize xsputn(char const* characters, std::streamsize count) override {
    return Append({characters, static_cast<std::size_t>(count)}) ? count : 0;
  }

  int_type overflow(int_type character) override {
    char const next = traits_type::to_char_type(character);
    return Append({&next, 1}) ? character : traits_type::eof();
  }

 private:
  std::string text;
};

}  // namespace Tarvik::Ilog
