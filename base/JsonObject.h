// A JSON object. Include "base/Json.h", which brings the functions as well.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "base/Export.h"
#include "base/JsonValue.h"

namespace Tarvik::Json {

/// An ordered map from text keys to values. References to members stay valid until the object goes,
/// is moved from or assigned to.
class QUELLON_EXPORT Object {
 public:
  Object();
  Object(Object const&);
  Object(Object&&) noexcept;
  Object& operator=(Object const&);
  Object& operator=(Object&&) noexcept;
  ~Object();

  /// The value stored under `key`; made, as null, when missing. A null `key` throws IException.
  Value& operator[](char const* key);
  /// The value stored under `key`; made, as null, when missing.
  Value& operator[](std::string const& key);
  /// Whether a value, even null, is stored under `key`.
  [[nodiscard]] bool HasKey(std::string const& key) const;
  /// The number of members.
  [[nodiscard]] std::size_t Size() const noexcept;

  /// What `Serialize` makes of the object, without a copy of it.
  [[nodiscard]] std::string ToText() const;

  /// Members, keys ascending bytewise.
  using Members = std::map<std::string, Value, std::less<>>;
  /// The first member.
  [[nodiscard]] Members::const_iterator begin() const noexcept;
  /// Past the last member.
  [[nodiscard]] Members::const_iterator end() const noexcept;

 private:
  friend class Reader;

  Members members;
};

}  // namespace Tarvik::Json
