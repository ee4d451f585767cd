#include "base/JsonObject.h"

#include "base/IException.h"

namespace Tarvik::Json {

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

}  // namespace Tarvik::Json
