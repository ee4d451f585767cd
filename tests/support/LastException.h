// Which exception the libraries made last, also one that they keep to themselves. Defines the
// constructor of `IException` before the library's own, so it belongs into one source of a test
// program.
#pragma once

#include <optional>
#include <string_view>

#include "base/IException.h"
#include "tests/machine/TheReal.h"

/// The last IException made with a text since it was reset. Keeping it allocates nothing.
inline std::optional<Tarvik::IException>& LastException() {
  static std::optional<Tarvik::IException> instance;
  return instance;
}

// On some machines constructors return their object, on the others nobody looks.
extern "C" {

Tarvik::IException*
ConstructException(Tarvik::IException* exception, std::string_view text, int errorNumber) __asm__(
    "_ZN6Tarvik10IExceptionC1ESt17basic_string_viewIcSt11char_traitsIcEEi");

Tarvik::IException* ConstructException(Tarvik::IException* exception, std::string_view text,
                                       int errorNumber) {
  static auto* const next = TheReal<void(Tarvik::IException*, std::string_view, int)>(
      "_ZN6Tarvik10IExceptionC1ESt17basic_string_viewIcSt11char_traitsIcEEi");
  next(exception, text, errorNumber);
  LastException() = *exception;
  return exception;
}

}  // extern "C"
