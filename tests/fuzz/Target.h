// What every fuzz target is made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

/// One run of a target; defined by each of them.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace Fuzz {

inline std::string_view Text(std::uint8_t const* data, std::size_t size) {
  return {reinterpret_cast<char const*>(data), size};
}

/// Ends the run, and so reports the input, when a promise of the library does not hold.
inline void Require(bool holds, char const* promise) {
  if (holds) return;
  std::cerr << "broken promise: " << promise << std::endl;
  std::abort();
}

}  // namespace Fuzz
