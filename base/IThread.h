// Base of objects that own one worker thread.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <thread>
#include <typeinfo>

#include "base/Export.h"
#include "base/Mutex.h"
#include "base/ThreadSafety.h"

namespace Tarvik::Interfaces {

/// One worker thread per object: `RunBefore()`, then `Run()` again and again until `Cancel()`,
/// then `RunAfter()`.
///
/// `Start`, `Cancel` and `Join` may be called from any thread, the worker included. A derived
/// class joins in its own destructor, before its members go: the base's destructor runs too late
/// to protect them. Where it does not, the destructors of its bases wait for the `Run()` under way,
/// and the next one that the thread calls is that of the class whose destructor has been reached.
/// No object is destroyed on its own worker. In a child made by fork(2) an object has no thread,
/// whatever it had in the parent, until it is started there. An exception that leaves a hook or
/// `Run()` is logged as an error and ends the thread, never the process.
class QUELLON_EXPORT IThread {
 public:
  IThread();
  IThread(IThread const&) = delete;
  IThread& operator=(IThread const&) = delete;
  /// Cancels and waits for the thread. Pure to make the class abstract: `Run()`, which derived
  /// classes supply, cannot be, as the thread may call it until this destructor has been reached.
  virtual ~IThread() = 0;

 protected:
  // Binary interface: the virtual functions keep their order, and no other joins them.
  /// Called on the worker before the first `Run()`.
  virtual void RunBefore();
  /// The work; called again and again until `Cancel()`. Without any of a derived class, or when
  /// that has been destroyed while its thread runs, cancels.
  virtual void Run();
  /// Called on the worker after the last `Run()`, also when that one threw.
  virtual void RunAfter();
  /// Called by `Cancel()` on the cancelling thread, to wake a `Run()` that waits for something.
  virtual void Stopping();

  /// Whether the object was of a class derived from `type` when its thread was started, and is of
  /// `type` itself now: the derived part has been destroyed while the thread runs. For the `Run()`
  /// of a class that others may derive from, which is called then in the place of theirs.
  [[nodiscard]] bool IsReducedTo(std::type_info const& type);

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

  void ForgetThreadOfParent() noexcept QUELLON_NO_THREAD_SAFETY_ANALYSIS;  // the only thread
  void RunThread() noexcept;
  void RunUntilCancelled();
  void StopRunning();
  bool IsRunning();
  bool RestartsOrEnds();

  Mutex stateMutex;
  std::condition_variable ended;
  State state QUELLON_GUARDED_BY(stateMutex) = State::Idle;
  // The object's class at the last start.
  std::type_info const* startedAs QUELLON_GUARDED_BY(stateMutex) = nullptr;
  std::thread worker QUELLON_GUARDED_BY(stateMutex);
  pid_t process;  // that the thread is of
};

}  // namespace Tarvik::Interfaces
