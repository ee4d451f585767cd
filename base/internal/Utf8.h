// UTF-8 as the Unicode standard defines it: shortest forms, no surrogates, up to U+10FFFF.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Tarvik {

/// The length in bytes of the well-formed character that `text` begins with, or 0 if it begins
/// with none.
inline std::size_t Utf8Length(std::string_view text) noexcept {
  auto const byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  auto const continues = [&](std::size_t i, unsigned low = 0x80, unsigned high = 0xBF) {
    return i < text.size() && byte(i) >= low && byte(i) <= high;
  };
  if (text.empty()) return 0;
  unsigned const lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    unsigned const low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
    unsigned const high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
    return continues(1, low, high) && continues(2) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    unsigned const low = lead == 0xF0 ? 0x90 : 0x80;   // no overlong forms
    unsigned const high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
  }
  return 0;
}

/// Appends the UTF-8 form of a code point that is not a surrogate.
inline void AppendUtf8(std::string& text, unsigned long codePoint) {
  auto const append = [&text](unsigned long byte) { text += static_cast<char>(byte); };
  auto const continuation = [](unsigned long bits) { return 0x80 | (bits & 0x3F); };
  if (codePoint < 0x80) {
    append(codePoint);
  } else if (codePoint < 0x800) {
    append(0xC0 | (codePoint >> 6));
    append(continuation(codePoint));
  } else if (codePoint < 0x10000) {
    append(0xE0 | (codePoint >> 12));
    append(continuation(codePoint >> 6));
    append(continuation(codePoint));
  } else {
    append(0xF0 | (codePoint >> 18));
    append(continuation(codePoint >> 12));
    append(continuation(codePoint >> 6));
    append(continuation(codePoint));
  }
}

}  // namespace Tarvik
