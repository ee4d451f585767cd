// Whole numbers as text.
#pragma once

#include <array>
#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

namespace Tarvik {

/// A whole number in decimal, as every stream shows it that nobody has changed.
template <typename Number>
class Decimal {
 public:
  // A board of 32 bits divides wider numbers by a function, which costs more than all the rest.
  explicit Decimal(Number number) noexcept
      : end(std::in_range<unsigned>(number) ? Write(static_cast<unsigned>(number))
                                            : Write(number)) {}
  Decimal(Decimal const&) = delete;
  Decimal& operator=(Decimal const&) = delete;
  ~Decimal() = default;

  /// The text; valid as long as this object.
  [[nodiscard]] std::string_view View() const noexcept { return {digits.begin(), end}; }

 private:
  char* Write(auto shown) noexcept {
    return std::to_chars(digits.begin(), digits.end(), shown).ptr;
  }

  std::array<char, std::numeric_limits<Number>::digits10 + 2> digits;
  char const* end;
};

}  // namespace Tarvik
