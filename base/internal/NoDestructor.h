// Process-wide objects that outlive every other static object.
#pragma once

#include <memory>
#include <new>
#include <utility>

namespace Tarvik {

/// Holds a T that is built in place and never destroyed, so that it may be used by destructors of
/// static objects and by threads that still run while the process exits.
template <typename T>
class NoDestructor {
 public:
  template <typename... Arguments>
  explicit NoDestructor(Arguments&&... arguments) {
    std::construct_at(reinterpret_cast<T*>(storage), std::forward<Arguments>(arguments)...);
  }
  NoDestructor(NoDestructor const&) = delete;
  NoDestructor& operator=(NoDestructor const&) = delete;
  ~NoDestructor() = default;

  T* Get() { return std::launder(reinterpret_cast<T*>(storage)); }

 private:
  alignas(T) unsigned char storage[sizeof(T)];
};

}  // namespace Tarvik
