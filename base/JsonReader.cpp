// JSON text as values: a recursive descent over the grammar of RFC 8259.
#include <algorithm>
#include <charconv>
#include <limits>
#include <locale>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/IException.h"
#include "base/Json.h"
#include "base/internal/JsonText.h"
#include "base/internal/Utf8.h"

namespace Tarvik::Json {

namespace {

constexpr int kDeepestNesting = 512;

bool IsBlank(char character) {
  return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

bool IsDigit(char character) {
  return character >= '0' && character <= '9';
}

// The nearest double; for a number beyond the range of doubles that is infinity or zero.
double ToDouble(std::string_view digits) {
  double number;
  auto const result = std::from_chars(digits.begin(), digits.end(), number);
  if (result.ec == std::errc()) return number;
  std::istringstream stream{std::string(digits)};
  stream.imbue(std::locale::classic());
  if (stream >> number) return number;
  double const infinity = std::numeric_limits<double>::infinity();
  return digits.front() == '-' ? -infinity : infinity;
}

}  // namespace

class Reader {
 public:
  explicit Reader(std::string const& json) : text(json) {}

  Value ReadDocument() {
    SkipBlanks();
    Value value = ReadValue();
    SkipBlanks();
    if (position != text.size()) Fail("unexpected text after the value");
    return value;
  }

 private:
  [[noreturn]] void Fail(char const* reason) const {
    throw IException("JSON: " + std::string(reason) + " at byte " + std::to_string(position));
  }

  // At the end that is the NUL behind every string: it begins no token, so both fail alike.
  [[nodiscard]] char Peek() const { return text[position]; }
  [[nodiscard]] std::string_view Rest() const { return std::string_view(text).substr(position); }

  bool Accept(char expected) {
    if (Peek() != expected) return false;
    ++position;
    return true;
  }

  void Expect(char expected, char const* reason) {
    if (!Accept(expected)) Fail(reason);
  }

  void SkipBlanks() {
    while (IsBlank(Peek())) ++position;
  }

  Value ReadValue();
  Value ReadKeyword(std::string_view keyword, Value value);
  Value ReadObject();
  Value ReadArray();
  void Enter();
  void Leave() { --depth; }

  std::string ReadString();
  std::string_view ReadPlainCharacters();
  void ReadEscape(std::string& characters);
  unsigned long ReadEscapedCodePoint();
  unsigned long ReadFourHexDigits();

  Value ReadNumber();
  void SkipDigits();
  bool SkipFractionAndExponent();

  std::string const& text;
  std::size_t position = 0;
  int depth = 0;
};

Value Reader::ReadValue() {
  switch (Peek()) {
    case 'n':
      return ReadKeyword("null", Value());
    case 't':
      return ReadKeyword("true", true);
    case 'f':
      return ReadKeyword("false", false);
    case '"':
      return ReadString();
    case '{':
      return ReadObject();
    case '[':
      return ReadArray();
    default:
      return ReadNumber();
  }
}

Value Reader::ReadKeyword(std::string_view keyword, Value value) {
  if (!Rest().starts_with(keyword)) Fail("unexpected text");
  position += keyword.size();
  return value;
}

void Reader::Enter() {
  if (++depth > kDeepestNesting) Fail("nested too deep");
  ++position;
  SkipBlanks();
}

Value Reader::ReadObject() {
  Enter();
  Object object;
  if (!Accept('}')) {
    do {
      SkipBlanks();
      std::string key = ReadString();
      SkipBlanks();
      Expect(':', "missing colon");
      SkipBlanks();
      // Keys mostly come ascending, as they are in serialised texts.
      object.members.insert_or_assign(object.members.end(), std::move(key), ReadValue());
      SkipBlanks();
    } while (Accept(','));
    Expect('}', "missing comma or closing brace");
  }
  Leave();
  return object;
}

Value Reader::ReadArray() {
  Enter();
  Array array;
  if (!Accept(']')) {
    do {
      SkipBlanks();
      array.Add(ReadValue());
      SkipBlanks();
    } while (Accept(','));
    Expect(']', "missing comma or closing bracket");
  }
  Leave();
  return array;
}

std::string Reader::ReadString() {
  Expect('"', "missing quotation mark");
  std::string characters(ReadPlainCharacters());
  while (!Accept('"')) {
    Expect('\\', "unfinished text or bad character in it");
    ReadEscape(characters);
    characters += ReadPlainCharacters();
  }
  return characters;
}

std::string_view Reader::ReadPlainCharacters() {
  std::string_view const rest = Rest();
  std::size_t plain = 0;
  while (true) {
    plain += PlainLength(rest.substr(plain));
    std::size_t const length = Utf8Length(rest.substr(plain));
    if (length < 2)
      break;  // the end, bytes that are no character, or an ASCII one that is not plain
    plain += length;
  }
  position += plain;
  return rest.substr(0, plain);
}

void Reader::ReadEscape(std::string& characters) {
  if (Accept('u')) {
    AppendUtf8(characters, ReadEscapedCodePoint());
    return;
  }
  auto const* const escape = std::ranges::find(kShortEscapes, Peek(), &ShortEscape::letter);
  if (escape == kShortEscapes.end()) Fail("unknown escape");
  characters += escape->character;
  ++position;
}

// Characters beyond U+FFFF are escaped as a high and a low surrogate; one alone is no character.
unsigned long Reader::ReadEscapedCodePoint() {
  unsigned long const unit = ReadFourHexDigits();
  if (unit < 0xD800 || unit > 0xDFFF) return unit;
  if (unit > 0xDBFF || !Accept('\\') || !Accept('u')) Fail("unpaired surrogate");
  unsigned long const low = ReadFourHexDigits();
  if (low < 0xDC00 || low > 0xDFFF) Fail("unpaired surrogate");
  constexpr unsigned long kTenBits = 0x3FF;  // the part of each that is not its mark
  return 0x10000 + ((unit & kTenBits) << 10) + (low & kTenBits);
}

unsigned long Reader::ReadFourHexDigits() {
  constexpr std::size_t kCount = 4;
  std::string_view const digits = Rest().substr(0, kCount);
  unsigned long value = 0;
  auto const [end, error] = std::from_chars(digits.begin(), digits.end(), value, 16);
  if (digits.size() < kCount || end != digits.end()) Fail("bad hexadecimal digits");
  position += kCount;
  return value;
}

void Reader::SkipDigits() {
  if (!IsDigit(Peek())) Fail("missing digit");
  while (IsDigit(Peek())) ++position;
}

bool Reader::SkipFractionAndExponent() {
  std::size_t const start = position;
  if (Accept('.')) SkipDigits();
  if (Accept('e') || Accept('E')) {
    if (!Accept('+')) Accept('-');
    SkipDigits();
  }
  return position != start;
}

Value Reader::ReadNumber() {
  std::size_t const start = position;
  if (!Accept('-') && !IsDigit(Peek())) Fail("missing value");
  if (!Accept('0')) SkipDigits();
  bool const whole = !SkipFractionAndExponent();
  auto const digits = std::string_view(text).substr(start, position - start);
  int integer;
  if (whole && std::from_chars(digits.begin(), digits.end(), integer).ec == std::errc()) {
    return integer;
  }
  return ToDouble(digits);
}

Value Deserialize(std::string const& text) {
  return Reader(text).ReadDocument();
}

}  // namespace Tarvik::Json
