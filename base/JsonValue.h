// One JSON value. Include "base/Json.h", which brings all that a value can hold.
#pragma once

#include <algorithm>
#include <compare>
#include <concepts>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "base/Export.h"

namespace Tarvik::Json {

class Array;
class Object;
class Value;

/// The types of characters. A value is neither compared with one nor converted to one.
template <typename Type>
concept Character = std::same_as<Type, char> || std::same_as<Type, wchar_t> ||
    std::same_as<Type, char8_t> || std::same_as<Type, char16_t> || std::same_as<Type, char32_t>;

/// The types of numbers, std::int8_t and std::uint8_t among them.
template <typename Type>
concept Number = std::floating_point<Type> ||
    (std::integral<Type> && !std::same_as<Type, bool> && !Character<Type>);

/// What values are made of, numbers apart: bools, texts, objects, arrays.
template <typename Type>
concept Content = !Number<Type> && !Character<Type> && std::convertible_to<Type const&, Value>;

/// One JSON value: null, bool, integer, floating-point number, text, object or array. Asking for
/// another kind than the one held throws IException. A value that was moved from is null.
class QUELLON_EXPORT Value {
 public:
  Value() noexcept;  ///< null
  /// A bool; only from a bool itself, as a pointer would convert to one by accident.
  template <std::same_as<bool> Bool>
  Value(Bool truth) noexcept : held(truth) {}
  Value(int number) noexcept;     ///< an integer
  Value(double number) noexcept;  ///< a floating-point number
  /// Any other number: an integer if it is a whole one that fits an int, else a floating-point
  /// number, as `Deserialize` has it.
  template <Number Type>
  Value(Type number) noexcept
      : Value(FitsInt(number) ? Value(static_cast<int>(number))
                              : Value(static_cast<double>(number))) {}
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

  /// The bool held.
  [[nodiscard]] bool ToBool() const;
  /// The number held, without its fraction; one that does not fit an int throws IException.
  operator int() const;
  /// The number held.
  operator double() const;
  /// The number held as any other type: as an integer without its fraction, else rounded to what
  /// the type can hold. A number outside its range throws IException. A `switch` must be told which
  /// type is meant: `switch (int{value})`.
  template <Number Type>
  operator Type() const {
    using Limits = std::numeric_limits<Type>;
    if constexpr (std::floating_point<Type>) {
      constexpr auto kHighest =
          std::min<long double>(Limits::max(), std::numeric_limits<double>::max());
      return static_cast<Type>(ToFloating(static_cast<double>(kHighest)));
    } else if constexpr (std::signed_integral<Type>) {
      return static_cast<Type>(ToSigned(Limits::min(), Limits::max()));
    } else {
      return static_cast<Type>(ToUnsigned(Limits::max()));
    }
  }
  /// The bool held, as `ToBool`.
  template <std::same_as<bool> Bool>
  operator Bool() const {
    return ToBool();
  }
  /// The text held.
  [[nodiscard]] std::string ToString() const;
  /// A copy of the object held.
  [[nodiscard]] Object ToObject() const;
  /// A copy of the array held.
  [[nodiscard]] Array ToArray() const;

  /// Whether both hold the same: numbers of the same value, be they integers or floating-point
  /// numbers, equal texts, and objects and arrays whose members and elements are equal.
  bool operator==(Value const& other) const;
  /// Whether the value equals the one that `content` makes.
  template <Content Type>
  bool operator==(Type const& content) const {
    return *this == Value(content);
  }
  /// Whether a number of exactly that value is held.
  template <Number Type>
  bool operator==(Type number) const {
    return (IsInt() || IsDouble()) && std::is_eq(*this <=> number);
  }
  /// How the number held compares with another, by their exact values; unordered where one is not
  /// a number (NaN). Throws IException when no number is held.
  template <Number Type>
  std::partial_ordering operator<=>(Type number) const {
    return CompareWith(static_cast<Widest<Type>>(number));
  }

 private:
  friend class Writer;

  template <Number Type>
  static constexpr bool FitsInt(Type number) noexcept {
    if constexpr (std::integral<Type>) return std::in_range<int>(number);
    return false;
  }

  template <Number Type>
  using Widest = std::conditional_t<
      std::floating_point<Type>, long double,
      std::conditional_t<std::signed_integral<Type>, long long, unsigned long long>>;

  [[nodiscard]] long long ToSigned(long long lowest, long long highest) const;
  [[nodiscard]] unsigned long long ToUnsigned(unsigned long long highest) const;
  [[nodiscard]] double ToFloating(double highest) const;
  [[nodiscard]] std::partial_ordering CompareWith(long long number) const;
  [[nodiscard]] std::partial_ordering CompareWith(unsigned long long number) const;
  [[nodiscard]] std::partial_ordering CompareWith(long double number) const;

  // What an object or array holds never changes once it is in a value, so copies may share it.
  std::variant<std::monostate, bool, int, double, std::string, std::shared_ptr<Object const>,
               std::shared_ptr<Array const>>
      held;
};

}  // namespace Tarvik::Json
