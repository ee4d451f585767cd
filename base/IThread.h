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

/// Base of an object with a thread of its own, its worker. Started, the worker calls `RunBefore()`,
/// then `Run()` again and again until somebody calls `Cancel()`, then `RunAfter()`, and ends.
///
/// `Start`, `Cancel` and `Join` may be called from any thread, the worker included. No object is
/// destroyed on its own worker.
///
/// The destructor of a derived class calls `Cancel()` and `Join()` itself. This base's destructor
/// does so, too, but by then the members of the derived class are gone, and a `Run()` that still
/// runs would use them. Where a derived class forgets it, its bases wait for the `Run()` that is
/// running; any further call reaches the `Run()` of the class whose destructor runs at the time.
///
/// In a child made by fork(2) an object has no thread, whatever it had in the parent, until it is
/// started there. An exception that leaves `RunBefore()`, `Run()` or `RunAfter()` is logged as an
/// error and ends the thread, never the process.
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
  /// The work; called again and again until `Cancel()`. This one, which is called where no derived
  /// class has a `Run()`, or that class is destroyed already, cancels.
  virtual void Run();
  /// Called on the worker after the last `Run()`, also when that one threw.
  virtual void RunAfter();
  /// Called by `Cancel()` on the cancelling thread, to wake a `Run()` that waits for something.
  virtual void Stopping();

  /// True when the object was of a class derived from `type` when its thread was started, but is of
  /// `type` itself now: the derived part was destroyed while the thread was running. The `Run()` of
  /// a class that others may derive from asks this, since it is called then instead of theirs.
  [[nodiscard]] bool IsReducedTo(std::type_info const& type);

 public:
  /// Starts the thread; does nothing while it runs. A thread that was cancelled or has failed, but
  /// has not ended yet, begins again with `RunBefore()` instead of ending, so that no start is
  /// lost. Throws std::system_error when the system has no thread to give.
  void Start();

  /// Lets the thread end after the current `Run()`. Does not wait.
  void Cancel();

  /// Waits until the thread has ended; returns at once if there is none, or on the worker itself.
  void Join();

 private:
  enum class State { Idle, Running, Cancelled, Restarted };

  // Not checked: where it changes something it runs in a child's only thread.
  void ForgetThreadOfParent() noexcept QUELLON_NO_THREAD_SAFETY_ANALYSIS;
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
  pid_t process;  // which the worker belongs to
};

}  // namespace Tarvik::Interfaces
