// What applications compiled against a header rely on beyond names: order of fields, order of
// virtual functions.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Shape {

/// The place of a virtual function in its class's table, counted from 0, as the Itanium C++ ABI
/// writes it into a pointer to it. The two destructors take a place each.
template <typename Function>
std::size_t Slot(Function function) {
  static_assert(sizeof(Function) == 2 * sizeof(std::uintptr_t));
  std::array<std::uintptr_t, 2> words;
  std::memcpy(words.data(), &function, sizeof(function));
#if defined(__arm__) || defined(__aarch64__)
  return words[0] / sizeof(void*);
#else
  return (words[0] - 1) / sizeof(void*);
#endif
}

/// True; compiles only for the name of a function that has an overload of exactly the type `Type`.
template <typename Type>
constexpr bool Is(Type) {
  return true;
}

/// Whether fields lie in the order in which they are named.
template <typename... Fields>
bool InOrder(Fields const&... fields) {
  std::array<void const*, sizeof...(fields)> const addresses{&fields...};
  return std::ranges::is_sorted(addresses, std::less<>());
}

/// Whether the first base of an object lies at its beginning.
template <typename Base, typename Derived>
bool IsFirstBase(Derived const& object) {
  return static_cast<void const*>(static_cast<Base const*>(&object)) == &object;
}

/// The only virtual function of a class is its destructor: another class that adds a virtual
/// function gets the place after the two of the destructor.
template <typename Class>
struct WithOneMore : Class {
  using Class::Class;
  virtual void OneMore() {}
};

template <typename Class>
bool OnlyTheDestructorIsVirtual() {
  return Slot(&WithOneMore<Class>::OneMore) == 2;
}

}  // namespace Shape
