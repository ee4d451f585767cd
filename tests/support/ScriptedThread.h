// A worker thread whose hooks do what a test says.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/IThread.h"
#include "tests/machine/Threads.h"

/// Notes every call of a hook, in order, and then does the script of that hook, if there is one.
/// Set the scripts before `Start`.
class ScriptedThread : public Tarvik::Interfaces::IThread {
 public:
  ScriptedThread() { created = 0; }
  ScriptedThread(ScriptedThread const&) = delete;
  ScriptedThread& operator=(ScriptedThread const&) = delete;
  ~ScriptedThread() override {
    Cancel();
    Join();
  }

  std::function<void()> runBefore;
  std::function<void()> run;
  std::function<void()> runAfter;
  std::function<void()> stopping;

  /// "before", "run", "after" and "stopping" in the order of the calls; the "stopping" of a cancel
  /// on the worker is left out.
  std::vector<std::string> Events() {
    std::lock_guard const lock(mutex);
    return events;
  }
  int Count(std::string const& event) {
    std::lock_guard const lock(mutex);
    return static_cast<int>(std::ranges::count(events, event));
  }

  /// Threads made since the last object was.
  static int Created() { return created; }
  /// While set, the system has no thread to give.
  static void Fail(int error) { failure = error; }
  /// What else becomes of threads and locks; `create` is taken.
  static Machine::ThreadHooks& Hooks() { return creation; }

 protected:
  void RunBefore() override {
    onWorker = true;
    Do("before", runBefore);
  }
  void Run() override { Do("run", run); }
  void RunAfter() override { Do("after", runAfter); }
  void Stopping() override {
    if (!onWorker) Do("stopping", stopping);
  }

 private:
  void Do(char const* event, std::function<void()> const& script) {
    {
      std::lock_guard const lock(mutex);
      events.emplace_back(event);
    }
    if (script) script();
  }

  std::mutex mutex;
  std::vector<std::string> events;
  static inline thread_local bool onWorker = false;
  static inline std::atomic<int> created = 0;
  static inline std::atomic<int> failure = 0;

  /// Counts the threads that are made, unless they are to fail.
  struct Creation : Machine::ThreadHooks {
    Creation() {
      create = [] {
        if (failure == 0) ++created;
        return failure.load();
      };
    }
  };
  static inline Creation creation;
};
