#include "base/IException.h"

namespace Tarvik {

IException::IException(std::string_view text, int errorNumber) noexcept : code(errorNumber) {
  text.copy(message, kCapacity - 1);
}

IException::~IException() = default;

char const* IException::what() const noexcept {
  return message;
}

}  // namespace Tarvik
