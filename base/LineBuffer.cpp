#include "base/LineBuffer.h"

#include <exception>

namespace Tarvik::Ilog {

// Here, since applications include the header that are compiled without exceptions.
bool LineBuffer::Grow(std::size_t count) noexcept try {
  memory.resize(memory.size() + count);
  memory.resize(memory.capacity());
  return true;
} catch (std::exception const&) {
  return false;
}

}  // namespace Tarvik::Ilog
