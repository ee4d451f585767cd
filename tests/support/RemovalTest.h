// What tests share of which some have files removed in another way than the library's.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "tests/machine/Objects.h"
#include "tests/support/CatalogueTest.h"

class RemovalTest : public CatalogueTest {
 protected:
  ~RemovalTest() override { Machine::hooks().removeFile = nullptr; }

  /// From now on each removal frees that many bytes of the card.
  void RemovalFrees(std::int64_t bytes) {
    Machine::hooks().removeFile = [this, bytes](Ifile& file) {
      freeBytes += bytes;
      return Machine::Remove(file);
    };
  }

  /// Counts the passes of its thread.
  class Counting : public FilesManager {
   public:
    using FilesManager::FilesManager;
    ~Counting() override { Join(); }
    void Run() override {
      ++passes;
      FilesManager::Run();
      if (afterPass) afterPass();
    }
    std::atomic<int> passes = 0;
    std::function<void()> afterPass;
  };
};
