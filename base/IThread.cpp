#include "base/IThread.h"

#include <unistd.h>

#include <memory>

#include "base/Logger.h"
#include "base/MutexLock.h"

namespace Tarvik::Interfaces {

namespace {

template <typename Task>
void LoggingExceptions(Task task) noexcept {
  try {
    task();
  } catch (std::exception const& e) {
    Ilog::LogFailure("IThread", e.what());
  } catch (...) {
    Ilog::LogFailure("IThread", "unknown exception");
  }
}

}  // namespace

IThread::IThread() : process(getpid()) {}

IThread::~IThread() {
  Cancel();  // and not by the next Run() alone
  Join();
}

void IThread::RunBefore() {}
void IThread::Run() {
  Cancel();
}
void IThread::RunAfter() {}
void IThread::Stopping() {}

// A child made by fork(2) has only the thread that called it. A worker of the parent neither ends
// there nor gives its lock back, so all that belongs to it is constructed anew in place.
void IThread::ForgetThreadOfParent() noexcept {
  if (process == getpid()) return;
  std::construct_at(&stateMutex);
  std::construct_at(&ended);
  std::construct_at(&worker);
  state = State::Idle;
  process = getpid();
}

void IThread::Start() {
  ForgetThreadOfParent();
  MutexLock const lock(stateMutex);
  startedAs = &typeid(*this);
  if (state == State::Cancelled) state = State::Restarted;
  if (state != State::Idle) return;
  if (worker.joinable()) worker.join();  // it ends at this moment, so nobody waits long
  worker = std::thread(&IThread::RunThread, this);
  state = State::Running;
}

void IThread::Cancel() {
  ForgetThreadOfParent();
  {
    MutexLock const lock(stateMutex);
    if (state != State::Idle) state = State::Cancelled;
  }
  Stopping();
}

void IThread::Join() {
  ForgetThreadOfParent();
  MutexLock lock(stateMutex);
  if (worker.get_id() == std::this_thread::get_id()) return;
  while (state != State::Idle) lock.Wait(ended);
  if (worker.joinable()) worker.join();
}

bool IThread::IsReducedTo(std::type_info const& type) {
  MutexLock const lock(stateMutex);
  return startedAs != nullptr && *startedAs != type && typeid(*this) == type;
}

void IThread::RunThread() noexcept {
  do {
    LoggingExceptions([this] { RunUntilCancelled(); });
    LoggingExceptions([this] { RunAfter(); });
  } while (RestartsOrEnds());
}

void IThread::RunUntilCancelled() {
  try {
    RunBefore();
    while (IsRunning()) Run();
  } catch (...) {
    StopRunning();  // at once, so that a Start() from now on runs the thread again
    throw;
  }
}

void IThread::StopRunning() {
  MutexLock const lock(stateMutex);
  if (state == State::Running) state = State::Cancelled;
}

bool IThread::IsRunning() {
  MutexLock const lock(stateMutex);
  return state == State::Running;
}

bool IThread::RestartsOrEnds() {
  MutexLock const lock(stateMutex);
  if (state == State::Restarted) {
    state = State::Running;
    return true;
  }
  state = State::Idle;
  ended.notify_all();
  return false;
}

}  // namespace Tarvik::Interfaces
