// What a person tells a test by an environment variable.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace Environment {

/// A variable's number, or else `otherwise`.
inline std::uint32_t Number(char const* variable, std::uint32_t otherwise) {
  char const* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Environment
