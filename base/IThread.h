// Base of objects that own one worker thread.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/Export.h"

namespace Tarvik::Interfaces {

/// One worker thread per object: `RunBefore()`, then `Run()` again and again until `Cancel()`,
/// then `RunAfter()`.
///
/// `Start`, `Cancel` and `Join` may be called from any thread, the worker included. A derived
/// class joins in its own destructor, before its members go: the base's destructor runs too late
/// to protect them. No object is destroyed on its own worker. An exception that leaves a hook or
/// `Run()` is logged as an error and ends the thread, never the process.
class QUELLON_EXPORT IThread {
 public:
  IThread();
  IThread(IThread const&) = delete;
  IThread& operator=(IThread const&) = delete;
  /// Cancels and waits for the thread.
  virtual ~IThread();

 protected:
  /// Called on the worker before the first `Run()`.
  virtual void RunBefore();
  /// The work; called again and again until `Cancel()`.
  virtual void Run() = 0;
  /// Called on the worker after the last `Run()`, also when that one threw.
  virtual void RunAfter();
  /// Called by `Cancel()` on the cancelling thread, to wake a `Run()` that waits for something.
  virtual void Stopping();

 public:
  /// Starts the thread. Does nothing while it runs; while a cancelled or failed thread is still in
  /// its last pass, lets it go on with a new frame instead of ending, so no start is lost. Throws
  /// std::system_error when the system has no thread to give.
  void Start();

  /// Lets the thread end after the current `Run()`. Does not wait.
  void Cancel();

  /// Waits until the thread has ended; returns at once if there is none, or on the worker itself.
  void Join();

 private:
  enum class State { Idle, Running, Cancelled, Restarted };

  void Work() noexcept;
  void RunUntilCancelled();
  void StopRunning();
  bool KeepsRunning();
  bool BeginsAnotherFrame();

  std::mutex stateMutex;
  std::condition_variable ended;
  State state = State::Idle;
  std::thread worker;
};

}  // namespace Tarvik::Interfaces
