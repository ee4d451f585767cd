// Which file objects are alive, so that a test sees those a catalogue deletes and those it leaves
// to others on purpose. Defines constructors and destructors of `Ifile` before the library's own,
// so it belongs into one source of a test program.
#pragma once

#include <cstddef>
#include <mutex>
#include <set>

#include "FileUtils/File.h"
#include "tests/support/TheReal.h"

namespace LiveFiles {

using Quellon::FileUtils::Ifile;

struct Registry {
  std::mutex mutex;
  std::set<Ifile*> alive;
};

inline Registry& registry() {
  static Registry instance;
  return instance;
}

/// How many file objects made without a path, as a catalogue makes them, are alive.
inline std::size_t Count() {
  std::lock_guard const lock(registry().mutex);
  return registry().alive.size();
}

inline bool Contains(Ifile* file) {
  std::lock_guard const lock(registry().mutex);
  return registry().alive.contains(file);
}

inline void Add(Ifile* file) {
  std::lock_guard const lock(registry().mutex);
  registry().alive.insert(file);
}

inline void Forget(Ifile* file) {
  std::lock_guard const lock(registry().mutex);
  registry().alive.erase(file);
}

/// Deletes those that are left; call it when no catalogue is.
inline void DeleteAll() {
  while (Count() > 0) delete *registry().alive.begin();
}

}  // namespace LiveFiles

// On some machines constructors and destructors return their object, on the others nobody looks.
extern "C" {

using LiveFiles::Ifile;

Ifile* ConstructFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileC1Ev");
Ifile* DestroyFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileD1Ev");
void DeleteFile(Ifile* file) __asm__("_ZN7Quellon9FileUtils5IfileD0Ev");

Ifile* ConstructFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileC1Ev");
  next(file);
  LiveFiles::Add(file);
  return file;
}

Ifile* DestroyFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileD1Ev");
  LiveFiles::Forget(file);
  next(file);
  return file;
}

void DeleteFile(Ifile* file) {
  static auto* const next = TheReal<void(Ifile*)>("_ZN7Quellon9FileUtils5IfileD0Ev");
  LiveFiles::Forget(file);
  next(file);
}

}  // extern "C"
