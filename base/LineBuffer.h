// The text of a log line under way.
#pragma once

#include <cstddef>
#include <streambuf>
#include <string>
#include <string_view>

#include "base/Export.h"

namespace Tarvik::Ilog {

/// What a stream writes, as one text. A string stream's own buffer can only be emptied by replacing
/// its text, and asks for its bounds at every piece; that costs more than the pieces themselves.
class LineBuffer : public std::streambuf {
 public:
  /// The text so far; valid until more is appended.
  [[nodiscard]] std::string_view View() const noexcept { return {memory.data(), length}; }

  /// False, with nothing appended, when there is no memory for it.
  bool Append(std::string_view piece) noexcept {
    if (piece.size() > memory.size() - length && !Grow(piece.size())) return false;
    piece.copy(memory.data() + length, piece.size());
    length += piece.size();
    return true;
  }

  /// Has room for that many characters in all, if there is memory.
  void Reserve(std::size_t count) noexcept {
    if (memory.size() < count) static_cast<void>(Grow(count - memory.size()));
  }

  /// Cuts a text of more than `limit` bytes to that length, with `ending` as its end.
  void Cut(std::size_t limit, std::string_view ending) noexcept {
    if (length <= limit) return;
    length = limit;
    ending.copy(memory.data() + (limit - ending.size()), ending.size());
  }

  /// Empties the text, but keeps the memory that a usual line needs for the next one.
  void Clear() noexcept {
    constexpr std::size_t kUsual = 65536;
    length = 0;
    if (memory.size() > kUsual) std::string().swap(memory);
  }

 protected:
  /// Appends what the stream writes: all, or nothing.
  std::streamsize xsputn(char const* characters, std::streamsize count) override {
    return Append({characters, static_cast<std::size_t>(count)}) ? count : 0;
  }

  /// Appends one character.
  int_type overflow(int_type character) override {
    char const next = traits_type::to_char_type(character);
    return Append({&next, 1}) ? character : traits_type::eof();
  }

 private:
  QUELLON_EXPORT bool Grow(std::size_t count) noexcept;

  std::string memory;      // the text and room for more
  std::size_t length = 0;  // of the text
};

}  // namespace Tarvik::Ilog
