#include "base/JsonArray.h"

#include <utility>

#include "base/IException.h"

namespace Tarvik::Json {

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
