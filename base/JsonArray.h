// A JSON array. Include "base/Json.h", which brings the functions as well.
#pragma once

#include <cstddef>
#include <vector>

#include "base/Export.h"
#include "base/JsonValue.h"

namespace Tarvik::Json {

/// A sequence of values.
class QUELLON_EXPORT Array {
 public:
  Array();
  Array(Array const&);
  Array(Array&&) noexcept;
  Array& operator=(Array const&);
  Array& operator=(Array&&) noexcept;
  ~Array();

  /// Appends a value.
  void Add(Value value);
  /// The element at `index`; throws IException when there is none.
  [[nodiscard]] Value const& operator[](std::size_t index) const;
  /// The number of elements.
  [[nodiscard]] std::size_t Size() const noexcept;
  /// The first element.
  [[nodiscard]] std::vector<Value>::const_iterator begin() const noexcept;
  /// Past the last element.
  [[nodiscard]] std::vector<Value>::const_iterator end() const noexcept;

 private:
  std::vector<Value> elements;
};

}  // namespace Tarvik::Json
