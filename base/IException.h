// The one exception type the libraries throw. Immutable in use, so any thread may hold one.
#pragma once

#include <cstddef>
#include <exception>
#include <string_view>

#include "base/Export.h"

namespace Tarvik {

/// A failure with its text and, where a system call failed, its `errno`. Thrown by value.
class QUELLON_EXPORT IException : public std::exception {
 public:
  /// Keeps the first 1023 bytes of `text`. `errorNumber` is the `errno` of a failed system call,
  /// else 0. Allocates nothing.
  explicit IException(std::string_view text, int errorNumber = 0) noexcept;
  IException(IException const&) noexcept = default;
  IException& operator=(IException const&) noexcept = default;
  ~IException() override;

  /// The text, NUL-terminated; valid as long as this object.
  [[nodiscard]] char const* what() const noexcept override;

  static constexpr std::size_t kCapacity = 1024;  ///< bytes of the text, its NUL included

  // Binary interface: these fields keep their order.
  char message[kCapacity] = {};  ///< the text, NUL-terminated
  int code;                      ///< `errno` of the failed system call, or 0
};

}  // namespace Tarvik
