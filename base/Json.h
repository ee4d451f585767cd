// A small JSON document model. Values are plain data: copies are independent, and one object is
// used by one thread at a time.
#pragma once

#include <concepts>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/Export.h"

namespace Tarvik::Json {

class Array;
class Object;

/// One JSON value: null, bool, integer, floating-point number, text, object or array. Asking for
/// another kind than the one held throws IException.
class QUELLON_EXPORT Value {
 public:
  Value() noexcept;  ///< null
  /// Only a bool proper: a pointer must not become one by accident.
  template <std::same_as<bool> Bool>
  Value(Bool truth) noexcept : held(truth) {}
  Value(int number) noexcept;        ///< an integer
  Value(double number) noexcept;     ///< a floating-point number
  Value(char const* text);           ///< a text; a null `text` makes a null value
  Value(std::string text) noexcept;  ///< a text
  Value(Object members);             ///< an object
  Value(Array elements);             ///< an array
  Value(Value const&);
  Value(Value&&) noexcept;
  Value& operator=(Value const&);
  Value& operator=(Value&&) noexcept;
  ~Value();

  /// @{ The kind of value held; exactly one of these is true.
  [[nodiscard]] bool IsNull() const noexcept;
  [[nodiscard]] bool IsBool() const noexcept;
  [[nodiscard]] bool IsInt() const noexcept;
  [[nodiscard]] bool IsDouble() const noexcept;
  [[nodiscard]] bool IsString() const noexcept;
  [[nodiscard]] bool IsObject() const noexcept;
  [[nodiscard]] bool IsArray() const noexcept;
  /// @}

  /// The truth held.
  [[nodiscard]] bool ToBool() const;
  /// The number held, without its fraction; one that does not fit an int throws IException.
  operator int() const;
  /// The number held.
  operator double() const;
  /// The text held.
  [[nodiscard]] std::string ToString() const;
  /// A copy of the object held.
  [[nodiscard]] Object ToObject() const;
  /// A copy of the array held.
  [[nodiscard]] Array ToArray() const;

 private:
  friend class Writer;

  // What an object or array holds never changes once it is in a value, so copies may share it.
  std::variant<std::monostate, bool, int, double, std::string, std::shared_ptr<Object const>,
               std::shared_ptr<Array const>>
      held;
};

/// An ordered map from text keys to values. References to members stay valid until the object
/// goes.
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

/// The JSON text of `value` on one line without blanks, keys ascending. Doubles are written in the
/// shortest text that reads back as the same double, non-finite ones as null. Bytes that are not
/// UTF-8 are replaced by U+FFFD, so that the result is always JSON; of members whose keys are equal
/// then the last one stays.
QUELLON_EXPORT std::string Serialize(Value const& value);

/// Parses one JSON text (RFC 8259, UTF-8, nested 512 deep at most). Integers that fit an int become
/// integers, every other number a double; of members with the same key the last one stays.
/// Anything else throws IException, which names the byte offset of the first fault.
QUELLON_EXPORT Value Deserialize(std::string const& text);

}  // namespace Tarvik::Json
