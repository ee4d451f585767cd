// JSON values as text.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ostream>
#include <string_view>

#include "base/Json.h"
#include "base/internal/JsonText.h"
#include "base/internal/Utf8.h"

namespace Tarvik::Json {

namespace {

constexpr std::size_t kUsualLength = 256;  // of a health summary, with some to spare
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

std::string AsUtf8(std::string_view bytes) {
  std::string text;
  while (!bytes.empty()) {
    std::size_t const length = Utf8Length(bytes);
    text += length == 0 ? kReplacement : bytes.substr(0, length);
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return text;
}

}  // namespace

class Writer {
 public:
  Writer() { text.reserve(kUsualLength); }

  // Keys may be equal once bytes of them are replaced. That is so rare that nothing is done about
  // it before it happens; then all is written anew.
  template <typename Content>
  std::string Text(Content const& content) {
    Append(content);
    if (keysWereReplaced) {
      mergesKeys = true;
      text.clear();
      Append(content);
    }
    return std::move(text);
  }

 private:
  void Append(Value const& value) {
    std::visit([this](auto const& held) { AppendHeld(held); }, value.held);
  }
  void Append(Object const& object) { AppendHeld(object); }

  void AppendHeld(std::monostate) { text += "null"; }
  void AppendHeld(bool truth) { text += truth ? "true" : "false"; }
  void AppendHeld(int number) { AppendNumber(number); }
  void AppendHeld(double number);
  void AppendHeld(std::string_view characters) { static_cast<void>(AppendCharacters(characters)); }
  void AppendHeld(Object const& object);
  void AppendHeld(std::shared_ptr<Object const> const& object) { AppendHeld(*object); }
  void AppendHeld(std::shared_ptr<Array const> const& array);
  void AppendMembers(Object const& object);
  bool AppendCharacters(std::string_view characters);
  void AppendEscaped(char character);

  template <typename Number>
  std::string_view AppendNumber(Number number) {
    std::array<char, 32> digits;
    char* const end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    std::size_t const start = text.size();
    text.append(digits.begin(), end);
    return std::string_view(text).substr(start);
  }

  std::string text;
  bool keysWereReplaced = false;
  bool mergesKeys = false;
};

void Writer::AppendHeld(double number) {
  if (!std::isfinite(number)) {
    text += "null";
    return;
  }
  // Without a point or an exponent it would be read back as an integer.
  if (AppendNumber(number).find_first_of(".e") == std::string_view::npos) text += ".0";
}

// Returns whether bytes were replaced.
bool Writer::AppendCharacters(std::string_view characters) {
  bool replaced = false;
  text += '"';
  while (!characters.empty()) {
    std::size_t const plain = PlainLength(characters);
    text += characters.substr(0, plain);
    characters.remove_prefix(plain);
    if (characters.empty()) break;
    std::size_t const length = Utf8Length(characters);
    if (length == 0) {
      text += kReplacement;
      replaced = true;
    } else if (length == 1) {
      AppendEscaped(characters.front());
    } else {
      text += characters.substr(0, length);
    }
    characters.remove_prefix(length == 0 ? 1 : length);
  }
  text += '"';
  return replaced;
}

void Writer::AppendEscaped(char character) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  auto const code = static_cast<unsigned char>(character);
  auto const* const escape = std::ranges::find(kShortEscapes, character, &ShortEscape::character);
  if (escape != kShortEscapes.end()) {
    text += {'\\', escape->letter};
  } else {  // only control characters are left
    text += {'\\', 'u', '0', '0', kHexDigits[code >> 4], kHexDigits[code & 0xF]};
  }
}

void Writer::AppendHeld(Object const& object) {
  if (!mergesKeys) {
    AppendMembers(object);
    return;
  }
  Object merged;
  for (auto const& [key, value] : object) merged[AsUtf8(key)] = value;
  AppendMembers(merged);
}

void Writer::AppendMembers(Object const& object) {
  char separator = '{';
  for (auto const& [key, value] : object) {
    text += separator;
    separator = ',';
    keysWereReplaced |= AppendCharacters(key);
    text += ':';
    Append(value);
  }
  text += object.Size() == 0 ? "{}" : "}";
}

void Writer::AppendHeld(std::shared_ptr<Array const> const& array) {
  char separator = '[';
  for (Value const& element : *array) {
    text += separator;
    separator = ',';
    Append(element);
  }
  text += array->Size() == 0 ? "[]" : "]";
}

std::string Serialize(Value const& value) {
  return Writer().Text(value);
}

std::ostream& operator<<(std::ostream& stream, Value const& value) {
  return stream << Serialize(value);
}

std::string Object::ToText() const {
  return Writer().Text(*this);
}

}  // namespace Tarvik::Json
