// What the reader and the writer of JSON texts share.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace Tarvik::Json {

/// Which bytes are ASCII characters that stand for themselves in a JSON string.
inline constexpr auto kPlain = [] {
  std::array<bool, 256> plain{};
  for (std::size_t code = 0x20; code < 0x80; ++code) plain[code] = code != '"' && code != '\\';
  return plain;
}();

/// How many such characters `text` begins with. Nearly all are such, so reader and writer take a
/// run of them at once.
inline std::size_t PlainLength(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && kPlain[static_cast<unsigned char>(text[length])]) ++length;
  return length;
}

/// A character that has a short escape, and what stands for it behind the backslash.
struct ShortEscape {
  char character;
  char letter;
};

/// All of them. The solidus has one, but is plain, so that it is read and never written.
inline constexpr std::array<ShortEscape, 8> kShortEscapes{{{'"', '"'},
                                                           {'\\', '\\'},
                                                           {'/', '/'},
                                                           {'\b', 'b'},
                                                           {'\f', 'f'},
                                                           {'\n', 'n'},
                                                           {'\r', 'r'},
                                                           {'\t', 't'}}};

}  // namespace Tarvik::Json
