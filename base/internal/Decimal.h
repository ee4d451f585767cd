// Whole numbers as text.
#pragma once

#include <array>
#include <charconv>
#include <limits>
#include <string_view>

namespace Tarvik {

/// A whole number in decimal, as every stream shows it that nobody has changed.
template <typename Number>
class Decimal {
 public:
  explicit Decimal(Number number) noexcept
      : end(std::to_chars(digits.begin(), digits.end(), number).ptr) {}
  Decimal(Decimal const&) = delete;
  Decimal& operator=(Decimal const&) = delete;
  ~Decimal() = default;

  /// The text; valid as long as this object.
  [[nodiscard]] std::string_view View() const noexcept { return {digits.begin(), end}; }

 private:
  std::array<char, std::numeric_limits<Number>::digits10 + 2> digits;
  char const* end;
};

}  // namespace Tarvik
