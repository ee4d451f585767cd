#include "base/JsonValue.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/IException.h"
#include "base/JsonArray.h"
#include "base/JsonObject.h"

namespace Tarvik::Json {

namespace {

// The range of an integer type: its lowest number and the one after its highest. Both are powers of
// two, or 0, and so are doubles.
template <typename Integer>
constexpr auto kBegin = static_cast<double>(std::numeric_limits<Integer>::min());
template <typename Integer>
constexpr double kEnd = 2.0 * static_cast<double>(std::numeric_limits<Integer>::max() / 2 + 1);

[[noreturn]] void ThrowNot(char const* kind) {
  throw IException(std::string("JSON value is not ") + kind);
}

// The number without its fraction, if that lies in the range.
template <typename Integer>
Integer WholeOf(double number, Integer lowest, Integer highest) {
  double const whole = std::trunc(number);
  // Beyond 2^53 not every limit is a double, so the given limits are compared as integers.
  if (whole >= kBegin<Integer> && whole < kEnd<Integer>) {
    auto const integer = static_cast<Integer>(whole);
    if (integer >= lowest && integer <= highest) return integer;
  }
  throw IException("JSON number does not fit an integer");
}

// By their exact values, which a double need not have for an integer beyond 2^53.
template <typename Integer>
std::partial_ordering Compare(double number, Integer integer) {
  double const whole = std::trunc(number);
  if (whole < kBegin<Integer>) return std::partial_ordering::less;
  if (whole >= kEnd<Integer>) return std::partial_ordering::greater;
  if (std::isnan(number)) return std::partial_ordering::unordered;
  auto const order = static_cast<Integer>(whole) <=> integer;
  return std::is_neq(order) ? order : number <=> whole;
}

template <typename Held>
bool AreEqual(Held const& one, Held const& other) {
  return one == other;
}

template <typename Members>
bool AreEqual(std::shared_ptr<Members const> const& one,
              std::shared_ptr<Members const> const& other) {
  return std::equal(one->begin(), one->end(), other->begin(), other->end());
}

}  // namespace

Value::Value() noexcept = default;
Value::Value(int number) noexcept : held(number) {}
Value::Value(double number) noexcept : held(number) {}
Value::Value(char const* text) {
  if (text != nullptr) held = std::string(text);
}
Value::Value(std::string text) noexcept : held(std::move(text)) {}
Value::Value(Object members) : held(std::make_shared<Object const>(std::move(members))) {}
Value::Value(Array elements) : held(std::make_shared<Array const>(std::move(elements))) {}
Value::Value(Value const&) = default;
// The other becomes null: a moved-from pointer in it would still pass for an object.
Value::Value(Value&& other) noexcept : held(std::move(other.held)) {
  other.held = {};
}
Value& Value::operator=(Value const&) = default;
Value& Value::operator=(Value&& other) noexcept {
  held = std::exchange(other.held, {});
  return *this;
}
Value::~Value() = default;

bool Value::IsNull() const noexcept {
  return std::holds_alternative<std::monostate>(held);
}
bool Value::IsBool() const noexcept {
  return std::holds_alternative<bool>(held);
}
bool Value::IsInt() const noexcept {
  return std::holds_alternative<int>(held);
}
bool Value::IsDouble() const noexcept {
  return std::holds_alternative<double>(held);
}
bool Value::IsString() const noexcept {
  return std::holds_alternative<std::string>(held);
}
bool Value::IsObject() const noexcept {
  return std::holds_alternative<std::shared_ptr<Object const>>(held);
}
bool Value::IsArray() const noexcept {
  return std::holds_alternative<std::shared_ptr<Array const>>(held);
}

bool Value::ToBool() const {
  if (auto const* truth = std::get_if<bool>(&held)) return *truth;
  ThrowNot("a bool");
}

Value::operator int() const {
  if (auto const* number = std::get_if<int>(&held)) return *number;
  using Limits = std::numeric_limits<int>;
  return static_cast<int>(ToSigned(Limits::min(), Limits::max()));
}

Value::operator double() const {
  if (auto const* number = std::get_if<double>(&held)) return *number;
  if (auto const* number = std::get_if<int>(&held)) return *number;
  ThrowNot("a number");
}

long long Value::ToSigned(long long lowest, long long highest) const {
  return WholeOf(static_cast<double>(*this), lowest, highest);
}

unsigned long long Value::ToUnsigned(unsigned long long highest) const {
  return WholeOf(static_cast<double>(*this), 0ULL, highest);
}

double Value::ToFloating(double highest) const {
  auto const number = static_cast<double>(*this);
  if (!std::isfinite(number) || std::abs(number) <= highest) return number;
  throw IException("JSON number does not fit a floating-point number");
}

std::partial_ordering Value::CompareWith(long long number) const {
  return Compare(static_cast<double>(*this), number);
}

std::partial_ordering Value::CompareWith(unsigned long long number) const {
  return Compare(static_cast<double>(*this), number);
}

std::partial_ordering Value::CompareWith(long double number) const {
  return static_cast<double>(*this) <=> number;
}

bool Value::operator==(Value const& other) const {
  if (other.IsInt() || other.IsDouble()) return *this == static_cast<double>(other);
  if (held.index() != other.held.index()) return false;
  auto const isSame = [&other](auto const& mine) {
    return AreEqual(mine, std::get<std::remove_cvref_t<decltype(mine)>>(other.held));
  };
  return std::visit(isSame, held);
}

std::string Value::ToString() const {
  if (auto const* text = std::get_if<std::string>(&held)) return *text;
  ThrowNot("a text");
}

Object Value::ToObject() const {
  if (auto const* object = std::get_if<std::shared_ptr<Object const>>(&held)) return **object;
  ThrowNot("an object");
}

Array Value::ToArray() const {
  if (auto const* array = std::get_if<std::shared_ptr<Array const>>(&held)) return **array;
  ThrowNot("an array");
}

}  // namespace Tarvik::Json
