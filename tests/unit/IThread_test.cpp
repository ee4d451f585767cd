// The life of a worker thread: its frames, its starts and its end.
#include "base/IThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"
#include "tests/support/ScriptedThread.h"

namespace {

using Tarvik::Interfaces::IThread;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kFrame = {"before", "run", "after"};

TEST(IThread, BeginsWithoutAThread) {
  ScriptedThread thread;
  EXPECT_THAT(thread.Events(), IsEmpty());
  thread.Join();
  EXPECT_EQ(ScriptedThread::Created(), 0);
}

TEST(IThread, FramesItsRunsOnAThreadOfItsOwn) {
  ScriptedThread thread;
  std::vector<std::thread::id> ids;
  auto const note = [&ids] { ids.push_back(std::this_thread::get_id()); };
  thread.runBefore = note;
  thread.run = [&] {
    note();
    thread.Cancel();
  };
  thread.runAfter = note;
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), testing::ElementsAreArray(kFrame));
  ASSERT_EQ(ids.size(), 3U);
  EXPECT_NE(ids[0], std::this_thread::get_id());
  EXPECT_EQ(ids[1], ids[0]);
  EXPECT_EQ(ids[2], ids[0]);
}

TEST(IThread, RunsAgainAndAgainUntilItIsCancelled) {
  ScriptedThread thread;
  int passes = 0;
  thread.run = [&] {
    if (++passes == 3) thread.Cancel();
  };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "run", "run", "after"));
}

TEST(IThread, IsCancelledFromOutside) {
  ScriptedThread thread;
  std::counting_semaphore passes(0);
  thread.run = [&] { passes.release(); };
  thread.Start();
  passes.acquire();
  passes.acquire();
  thread.Cancel();
  thread.Join();
  EXPECT_EQ(thread.Count("before"), 1);
  EXPECT_GE(thread.Count("run"), 2);
  EXPECT_EQ(thread.Count("after"), 1);
}

TEST(IThread, ACancelInItsFirstHookLeavesOutTheRun) {
  ScriptedThread thread;
  thread.runBefore = [&] { thread.Cancel(); };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("before", "after"));
}

TEST(IThread, ACancelWhileIdleDoesNotCountForTheNextStart) {
  ScriptedThread thread;
  thread.Cancel();
  thread.run = [&] { thread.Cancel(); };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("stopping", "before", "run", "after"));
}

TEST(IThread, EachStartAfterAPassRunsOneMore) {
  ScriptedThread thread;
  thread.run = [&] { thread.Cancel(); };
  for (int passes = 1; passes <= 100; ++passes) {
    thread.Start();
    thread.Join();
    ASSERT_EQ(thread.Count("run"), passes);
  }
  EXPECT_EQ(thread.Count("before"), 100);
  EXPECT_EQ(thread.Count("after"), 100);
}

TEST(IThread, StartsAgainWithoutAJoin) {
  ScriptedThread thread;
  std::counting_semaphore ended(0);
  thread.run = [&] { thread.Cancel(); };
  thread.runAfter = [&] { ended.release(); };
  for (int passes = 1; passes <= 100; ++passes) {
    thread.Start();
    ended.acquire();
    ASSERT_EQ(thread.Count("run"), passes);
  }
}

TEST(IThread, AStartWhileItRunsDoesNothing) {
  ScriptedThread thread;
  Gate gate;
  thread.run = [&] {
    gate.Wait();
    thread.Cancel();
  };
  thread.Start();
  gate.AwaitThread();
  for (int i = 0; i < 10; ++i) thread.Start();
  gate.Open();
  thread.Join();
  EXPECT_THAT(thread.Events(), testing::ElementsAreArray(kFrame));
  EXPECT_EQ(ScriptedThread::Created(), 1);
}

TEST(IThread, AStartInTheLastPassIsNotLost) {
  ScriptedThread thread;
  Gate gate;
  thread.run = [&] {
    thread.Cancel();
    if (thread.Count("run") > 1) return;
    gate.Wait();
  };
  thread.Start();
  gate.AwaitThread();
  thread.Start();
  thread.Start();
  gate.Open();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after", "before", "run", "after"));
}

TEST(IThread, AStartInItsLastHookIsNotLost) {
  ScriptedThread thread;
  thread.run = [&] { thread.Cancel(); };
  thread.runAfter = [&] {
    if (thread.Count("after") == 1) thread.Start();
  };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), ElementsAre("before", "run", "after", "before", "run", "after"));
}

TEST(IThread, ACancelTakesBackAStartInTheLastPass) {
  ScriptedThread thread;
  thread.run = [&] {
    thread.Cancel();
    thread.Start();
    thread.Cancel();
  };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), testing::ElementsAreArray(kFrame));
}

TEST(IThread, CancelCallsStoppingOnTheCancellingThread) {
  ScriptedThread thread;
  std::thread::id stopper;
  thread.stopping = [&] { stopper = std::this_thread::get_id(); };
  thread.Cancel();
  EXPECT_THAT(thread.Events(), ElementsAre("stopping"));
  EXPECT_EQ(stopper, std::this_thread::get_id());
  thread.Cancel();
  EXPECT_EQ(thread.Count("stopping"), 2);
}

TEST(IThread, StoppingWakesARunThatWaits) {
  ScriptedThread thread;
  Gate gate;
  thread.run = [&] { gate.Wait(); };
  thread.stopping = [&] { gate.Open(); };
  thread.Start();
  gate.AwaitThread();
  thread.Cancel();
  thread.Join();
  EXPECT_EQ(thread.Count("run"), 1);
}

TEST(IThread, StoppingMayUseTheThread) {
  ScriptedThread thread;
  thread.stopping = [&] {
    if (thread.Count("stopping") == 1) thread.Cancel();
  };
  thread.Cancel();
  EXPECT_EQ(thread.Count("stopping"), 2);
}

TEST(IThread, JoinOnTheWorkerReturnsAtOnce) {
  ScriptedThread thread;
  thread.run = [&] {
    thread.Join();
    thread.Cancel();
    thread.Join();
  };
  thread.runAfter = [&] { thread.Join(); };
  thread.Start();
  thread.Join();
  EXPECT_THAT(thread.Events(), testing::ElementsAreArray(kFrame));
}

TEST(IThread, HasNoThreadInAChildOfItsProcessButMayBeStartedThere) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the race detector starts no threads in a child of a process that has some";
#endif
  ScriptedThread thread;
  Gate gate;
  thread.run = [&] {
    gate.Wait();
    thread.Cancel();
  };
  thread.Start();
  gate.AwaitThread();
  ChildProcess::Run([&] {
    ChildProcess::EndInTime();  // should it wait for a thread of its parent
    thread.Join();
    gate.Open();
    thread.Start();
    thread.Join();
    EXPECT_EQ(thread.Count("run"), 2);
  });
  gate.Open();
  thread.Join();
  EXPECT_EQ(thread.Count("run"), 1);
}

TEST(IThread, ThatRunsMayBeDestroyedInAChildOfItsProcess) {
  auto thread = std::make_unique<ScriptedThread>();
  Gate gate;
  thread->run = [&] {
    gate.Wait();
    thread->Cancel();
  };
  thread->Start();
  gate.AwaitThread();
  ChildProcess::Run([&] {
    ChildProcess::EndInTime();
    thread.reset();
  });
  gate.Open();
}

TEST(IThread, OfItsParentIsNotJoinedByAChild) {
  ScriptedThread thread;
  Gate gate;
  thread.run = [&] {
    gate.Wait();
    thread.Cancel();
  };
  int joined = 0;
  Scoped::AtEnd const none([] { ScriptedThread::Hooks().join = nullptr; });
  ScriptedThread::Hooks().join = [&] { ++joined; };
  thread.Start();
  gate.AwaitThread();
  ChildProcess::Run([&] {
    ChildProcess::EndInTime();
    thread.Join();
    EXPECT_EQ(joined, 0);
  });
  gate.Open();
  thread.Join();
  EXPECT_EQ(joined, 1);
}

TEST(IThread, ThatAnotherThreadUsesAtAForkMayBeUsedInTheChild) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the race detector takes the lock for the other thread's in the child, too";
#endif
  ScriptedThread thread;
  thread.run = [&] { thread.Cancel(); };
  static thread_local bool isUser = false;
  Gate gate;
  Scoped::AtEnd const none([] { ScriptedThread::Hooks().unlock = nullptr; });
  ScriptedThread::Hooks().unlock = [&](auto&&...) {
    if (!std::exchange(isUser, false)) return;
    gate.Wait();
  };
  std::thread user([&] {
    isUser = true;
    thread.Cancel();
  });
  gate.AwaitThread();
  for (auto const use : {&IThread::Start, &IThread::Cancel, &IThread::Join}) {
    ChildProcess::Run([&] {
      ChildProcess::EndInTime();
      (thread.*use)();
      thread.Join();
      EXPECT_EQ(thread.Count("run"), use == &IThread::Start ? 1 : 0);
    });
  }
  gate.Open();
  user.join();
}

TEST(IThread, ThatAnotherThreadWaitsForAtAForkMayBeDestroyedInTheChild) {
  auto thread = std::make_unique<ScriptedThread>();
  Gate gate;
  thread->run = [&] {
    gate.Wait();
    thread->Cancel();
  };
  static thread_local bool isJoiner = false;
  std::binary_semaphore locked(0);
  Scoped::AtEnd const none([] { ScriptedThread::Hooks().lock = nullptr; });
  ScriptedThread::Hooks().lock = [&](pthread_mutex_t const* mutex) -> std::optional<int> {
    if (!std::exchange(isJoiner, false)) return std::nullopt;
    int const result = pthread_mutex_lock(const_cast<pthread_mutex_t*>(mutex));
    locked.release();
    return result;
  };
  thread->Start();
  gate.AwaitThread();
  std::thread joiner([&] {
    isJoiner = true;
    thread->Join();
  });
  locked.acquire();
  thread->Start();  // does nothing, but has the lock only once the joiner waits
  ChildProcess::Run([&] {
    ChildProcess::EndInTime();
    thread.reset();
  });
  gate.Open();
  joiner.join();
}

TEST(IThread, SeveralThreadsMayJoin) {
  ScriptedThread thread;
  std::binary_semaphore go(0);
  std::atomic<bool> ended = false;
  thread.run = [&] {
    go.acquire();
    thread.Cancel();
  };
  thread.runAfter = [&] { ended = true; };
  thread.Start();
  std::vector<std::thread> joiners;
  for (int i = 0; i < 8; ++i) {
    joiners.emplace_back([&] {
      thread.Join();
      EXPECT_TRUE(ended);
    });
  }
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  EXPECT_FALSE(ended);
  go.release();
  for (auto& joiner : joiners) joiner.join();
}

TEST(IThread, IsDestroyedWhileIdle) {
  EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([] { ScriptedThread const thread; }));
}

TEST(IThread, IsDestroyedAfterAPassThatNobodyJoined) {
  auto thread = std::make_unique<ScriptedThread>();
  std::binary_semaphore ended(0);
  thread->run = [&] { thread->Cancel(); };
  thread->runAfter = [&] { ended.release(); };
  thread->Start();
  ended.acquire();
  thread.reset();
  EXPECT_EQ(ScriptedThread::Created(), 1);
}

TEST(IThread, IsDestroyedWhileItRunsButNotBeforeThePassHasEnded) {
  std::binary_semaphore running(0);
  std::vector<std::string> order;
  {
    ScriptedThread thread;
    thread.run = [&] {
      if (thread.Count("run") == 1) running.release();
    };
    thread.runAfter = [&] { order.emplace_back("ended"); };
    thread.Start();
    running.acquire();
  }
  order.emplace_back("destroyed");
  EXPECT_THAT(order, ElementsAre("ended", "destroyed"));
}

TEST(IThread, ItsOtherHooksDoNothingUnlessAClassSaysSo) {
  struct Plain : IThread {
    void Run() override { Cancel(); }
  };
  int const before = ScriptedThread::Created();
  auto thread = std::make_unique<Plain>();
  thread->Start();
  thread->Join();
  thread->Start();
  thread->Join();
  thread.reset();
  EXPECT_EQ(ScriptedThread::Created(), before + 2);
}

TEST(IThread, EndsAtOnceInAClassWithoutWork) {
  struct Idle : IThread {
  } thread;
  EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([&thread] {
    thread.Start();
    thread.Join();
  }));
}

TEST(IThread, StopsAndReleasesItsThreadAlsoForAClassThatDoesNot) {
  struct Plain : IThread {
    explicit Plain(std::binary_semaphore& semaphore) : ended(semaphore) {}
    void Run() override { Cancel(); }
    void RunAfter() override { ended.release(); }
    std::binary_semaphore& ended;
  };
  std::binary_semaphore ended(0);
  EXPECT_TRUE(LogFile::AnotherThreadGetsThrough([&ended] {
    Plain thread(ended);
    thread.Start();
    ended.acquire();
  }));
}

TEST(IThread, IsUsedFromManyThreadsAtOnce) {
  ScriptedThread thread;
  std::vector<std::thread> users;
  for (int i = 0; i < 4; ++i) {
    users.emplace_back([&thread] {
      for (int round = 0; round < 200; ++round) {
        thread.Start();
        thread.Cancel();
        if (round % 16 == 0) thread.Join();
      }
    });
  }
  for (auto& user : users) user.join();
  thread.Join();
  EXPECT_EQ(thread.Count("before"), thread.Count("after"));
  EXPECT_GE(thread.Count("before"), 1);
}

}  // namespace
