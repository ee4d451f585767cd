#include "base/Json.h"

#include <cmath>
#include <limits>

#include "base/IException.h"

namespace Tarvik::Json {

namespace {

[[noreturn]] void ThrowNot(char const* kind) {
  throw IException(std::string("JSON value is not ") + kind);
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
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(Value const&) = default;
Value& Value::operator=(Value&&) noexcept = default;
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
  double const whole = std::trunc(static_cast<double>(*this));
  using Limits = std::numeric_limits<int>;
  if (whole >= Limits::min() && whole <= Limits::max()) return static_cast<int>(whole);
  throw IException("JSON number does not fit an integer");
}

Value::operator double() const {
  if (auto const* number = std::get_if<double>(&held)) return *number;
  if (auto const* number = std::get_if<int>(&held)) return *number;
  ThrowNot("a number");
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

Object::Object() = default;
Object::Object(Object const&) = default;
Object::Object(Object&&) noexcept = default;
Object& Object::operator=(Object const&) = default;
Object& Object::operator=(Object&&) noexcept = default;
Object::~Object() = default;

Value& Object::operator[](char const* key) {
  if (key == nullptr) throw IException("JSON key is null");
  return (*this)[std::string(key)];
}

// Keys mostly come ascending, as they are in serialised texts.
Value& Object::operator[](std::string const& key) {
  return members.try_emplace(members.end(), key)->second;
}
bool Object::HasKey(std::string const& key) const {
  return members.contains(key);
}
std::size_t Object::Size() const noexcept {
  return members.size();
}
Object::Members::const_iterator Object::begin() const noexcept {
  return members.begin();
}
Object::Members::const_iterator Object::end() const noexcept {
  return members.end();
}

Array::Array() = default;
Array::Array(Array const&) = default;
Array::Array(Array&&) noexcept = default;
Array& Array::operator=(Array const&) = default;
Array& Array::operator=(Array&&) noexcept = default;
Array::~Array() = default;

void Array::Add(Value value) {
  elements.push_back(std::move(value));
}

Value const& Array::operator[](std::size_t index) const {
  if (index >= elements.size()) throw IException("JSON array has no such element");
  return elements[index];
}

std::size_t Array::Size() const noexcept {
  return elements.size();
}
std::vector<Value>::const_iterator Array::begin() const noexcept {
  return elements.begin();
}
std::vector<Value>::const_iterator Array::end() const noexcept {
  return elements.end();
}

}  // namespace Tarvik::Json
