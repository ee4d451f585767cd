// Files whose removal does as a test wants. Defines `Ifile::Remove` before the library's own, so it
// belongs into one source of a test program.
#pragma once

#include <functional>

#include "FileUtils/File.h"
#include "tests/support/TheReal.h"

namespace RemovalHook {

using Quellon::FileUtils::Ifile;

/// What removes files instead of the library; none at first. May throw. Take it back after use.
inline std::function<bool(Ifile&)>& hook() {
  static std::function<bool(Ifile&)> instance;
  return instance;
}

/// The library's own removal.
inline bool Real(Ifile& file) {
  static auto* const next = TheReal<bool(Ifile*)>("_ZN7Quellon9FileUtils5Ifile6RemoveEv");
  return next(&file);
}

}  // namespace RemovalHook

bool Quellon::FileUtils::Ifile::Remove() {
  return RemovalHook::hook() ? RemovalHook::hook()(*this) : RemovalHook::Real(*this);
}
