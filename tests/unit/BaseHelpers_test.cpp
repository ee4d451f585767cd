// The small helpers that the other classes are built with.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "base/internal/CLibrary.h"
#include "base/internal/NoDestructor.h"
#include "base/internal/OpenFile.h"
#include "base/internal/Retry.h"
#include "base/internal/Shell.h"
#include "base/internal/SystemClock.h"
#include "base/internal/UniqueDir.h"
#include "base/internal/Utf8.h"
#include "tests/machine/Machine.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Scoped.h"

namespace {

using namespace std::chrono_literals;
using Tarvik::UniqueFd;
using testing::ElementsAre;
using testing::IsEmpty;

/// Retries 4 times, 100 ms apart, something that works at its `success`-th attempt.
std::pair<int, int> Retry(int success) {
  int attempts = 0;
  int const result = Tarvik::Retry(4, 100ms, [&] { return ++attempts == success; });
  return {result, attempts};
}

TEST(BaseHelpersRetry, StopsAtTheFirstSuccessAndSaysWhichItWas) {
  EXPECT_EQ(Retry(1), std::pair(1, 1));
  EXPECT_THAT(Machine::Trace(), IsEmpty());
  EXPECT_EQ(Retry(3), std::pair(3, 3));
  EXPECT_THAT(Machine::Trace(), ElementsAre(Machine::Sleep(100ms), Machine::Sleep(100ms)));
}

TEST(BaseHelpersRetry, PausesAfterTheLastFailureToo) {
  EXPECT_EQ(Retry(5), std::pair(0, 4));
  EXPECT_EQ(Machine::Trace().size(), 4U);
}

TEST(BaseHelpersRetry, ASignalDoesNotShortenAPause) {
  bool interrupted = false;
  Machine::hooks().interrupt =
      [&](std::chrono::nanoseconds length) -> std::optional<std::chrono::nanoseconds> {
    if (std::exchange(interrupted, true)) return std::nullopt;
    return length - 30ms;
  };
  Retry(2);
  EXPECT_THAT(Machine::Trace(), ElementsAre(Machine::Sleep(30ms), Machine::Sleep(70ms)));
}

TEST(BaseHelpersShell, TheExitStatusIsTheSecondByte) {
  EXPECT_EQ(Tarvik::ExitStatusByte(0), 0);
  EXPECT_EQ(Tarvik::ExitStatusByte(1 << 8), 1);
  EXPECT_EQ(Tarvik::ExitStatusByte(128 << 8), 128);
  EXPECT_EQ(Tarvik::ExitStatusByte(9), 0);
  EXPECT_EQ(Tarvik::ExitStatusByte(-1), 255);
}

TEST(BaseHelpersSystemClock, IsSetInWholeSeconds) {
  Machine::hooks().setClock = [](long seconds) {
    return seconds > 0 ? Machine::Answer::Success() : Machine::Answer::Failure(EINVAL);
  };
  EXPECT_TRUE(Tarvik::SetSystemClock(1614877509));
  EXPECT_FALSE(Tarvik::SetSystemClock(-1));
  EXPECT_THAT(Machine::Trace(), ElementsAre("clock 1614877509", "clock -1"));
}

TEST(BaseHelpersUniqueFd, ClosesItsDescriptor) {
  Descriptors::Watch const watch;
  {
    UniqueFd const fd(open("/dev/null", O_RDONLY));
    EXPECT_TRUE(fd.IsOpen());
    EXPECT_THAT(watch.Opened(), ElementsAre(fd.Get()));
  }
  EXPECT_THAT(watch.Opened(), IsEmpty());
}

TEST(BaseHelpersUniqueFd, OwnsNothingUnlessGivenSomething) {
  UniqueFd const none;
  EXPECT_FALSE(none.IsOpen());
  EXPECT_EQ(none.Get(), -1);
}

TEST(BaseHelpersUniqueFd, DescriptorZeroIsOneToo) {
  auto const input = Scoped::Descriptor(0);
  EXPECT_TRUE(UniqueFd(0).IsOpen());
}

TEST(BaseHelpersUniqueFd, HandsItsDescriptorOn) {
  Descriptors::Watch const watch;
  {
    UniqueFd first(open("/dev/null", O_RDONLY));
    int const number = first.Get();
    UniqueFd second(std::move(first));
    EXPECT_EQ(second.Get(), number);
    UniqueFd third(open("/dev/null", O_RDONLY));
    third = std::move(second);
    EXPECT_EQ(third.Get(), number);
  }
  EXPECT_THAT(watch.Opened(), IsEmpty());
}

TEST(BaseHelpersUniqueFd, GivesUpItsDescriptorForNone) {
  Descriptors::Watch const watch;
  UniqueFd fd(open("/dev/null", O_RDONLY));
  fd = UniqueFd();
  EXPECT_FALSE(fd.IsOpen());
  EXPECT_THAT(watch.Opened(), IsEmpty());
}

TEST(BaseHelpersOpenFile, OpensAsItIsToldAndKeepsTheDescriptorFromCommands) {
  Machine::MakeFile("/root/file", "");
  UniqueFd const file(Tarvik::OpenFile("/root/file", O_WRONLY | O_APPEND));
  EXPECT_TRUE(Descriptors::ClosesOnExec(file.Get()));
  EXPECT_EQ(fcntl(file.Get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_WRONLY | O_APPEND);
}

TEST(BaseHelpersOpenFile, MakesAFileWithItsMode) {
  Machine::MakeFile("/root/other", "");
  auto const mask = Scoped::Umask(0);
  UniqueFd const file(Tarvik::OpenFile("/root/file", O_WRONLY | O_CREAT | O_EXCL, 0640));
  struct stat status {};
  ASSERT_EQ(fstat(file.Get(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST(BaseHelpersOpenFile, FailsWithTheErrorOfOpen) {
  EXPECT_EQ(Tarvik::OpenFile("/root/missing", O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(BaseHelpersOpenFile, TakesNoStandardDescriptorThoughAllAreClosed) {
  ChildProcess::Run([] {
    Machine::MakeFile("/root/file", "");
    int opened = -1;
    bool closesOnExec = false;
    std::vector<int> open;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      opened = Tarvik::OpenFile("/root/file", O_RDWR);
      closesOnExec = Descriptors::ClosesOnExec(opened);
      open = watch.Opened();
    }
    EXPECT_GT(opened, 2);
    EXPECT_TRUE(closesOnExec);
    EXPECT_THAT(open, ElementsAre(opened));
  });
}

TEST(BaseHelpersOpenFile, FailsWhereOnlyStandardDescriptorsAreLeft) {
  ChildProcess::Run([] {
    Machine::MakeFile("/root/file", "");
    int opened = 0;
    int error = 0;
    std::vector<int> open;
    {
      Descriptors::NoStandardOnes const none;
      Descriptors::Watch const watch;
      rlimit limit{};
      getrlimit(RLIMIT_NOFILE, &limit);
      rlimit const few{3, limit.rlim_max};
      setrlimit(RLIMIT_NOFILE, &few);
      opened = Tarvik::OpenFile("/root/file", O_RDWR);
      error = errno;
      setrlimit(RLIMIT_NOFILE, &limit);
      open = watch.Opened();
    }
    EXPECT_EQ(opened, -1);
    EXPECT_EQ(error, EINVAL);  // the limit itself is below what is asked for
    EXPECT_THAT(open, IsEmpty());
  });
}

TEST(BaseHelpersUniqueDir, ClosesItsDirectory) {
  Descriptors::Watch const watch;
  {
    Tarvik::UniqueDir const directory(opendir("/"));
    EXPECT_NE(directory, nullptr);
  }
  EXPECT_THAT(watch.Opened(), IsEmpty());
  EXPECT_EQ(Tarvik::UniqueDir(opendir("/no such directory")), nullptr);
}

TEST(BaseHelpersNoDestructor, MakesItsObjectOnceAndNeverDestroysIt) {
  struct Counted {
    explicit Counted(int& count) : destroyed(count) {}
    ~Counted() { ++destroyed; }
    int& destroyed;
  };
  int destroyed = 0;
  {
    Tarvik::NoDestructor<Counted> kept(destroyed);
    EXPECT_EQ(&kept.Get()->destroyed, &destroyed);
    EXPECT_EQ(kept.Get(), kept.Get());
  }
  EXPECT_EQ(destroyed, 0);
}

/// A semaphore that counts from `value`.
class Semaphore {
 public:
  explicit Semaphore(unsigned value) { sem_init(&semaphore, 0, value); }
  Semaphore(Semaphore const&) = delete;
  Semaphore& operator=(Semaphore const&) = delete;
  ~Semaphore() { sem_destroy(&semaphore); }
  sem_t semaphore{};
};

TEST(BaseHelpersCLibrary, ASemaphoreIsPolledUntilItIsRaised) {
  Semaphore semaphore(0);
  Machine::hooks().monotonic = timespec{100, 0};
  Machine::hooks().sleep = [&, pauses = 0](auto) mutable {
    if (++pauses == 3) sem_post(&semaphore.semaphore);
  };
  EXPECT_EQ(Tarvik::PollSemaphore(&semaphore.semaphore, {101, 0}), 0);
  EXPECT_EQ(Machine::Trace(), std::vector(3, Machine::Sleep(10ms)));
  EXPECT_NE(sem_trywait(&semaphore.semaphore), 0);
}

TEST(BaseHelpersCLibrary, ASemaphoreIsNotPolledBeyondTheDeadline) {
  Semaphore semaphore(0);
  Machine::hooks().monotonic = timespec{101, 4};
  Machine::hooks().sleep = [](auto) { ++Machine::hooks().monotonic->tv_nsec; };
  EXPECT_EQ(Tarvik::PollSemaphore(&semaphore.semaphore, {101, 5}), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_THAT(Machine::Trace(), ElementsAre(Machine::Sleep(10ms)));
}

TEST(BaseHelpersCLibrary, ASemaphoreThatIsRaisedIsTakenAfterTheDeadlineToo) {
  Semaphore semaphore(1);
  EXPECT_EQ(Tarvik::PollSemaphore(&semaphore.semaphore, {0, 0}), 0);
  EXPECT_THAT(Machine::Trace(), IsEmpty());
}

TEST(BaseHelpersCLibrary, DescriptorsAreClosedFromTheGivenOneOn) {
  std::vector<UniqueFd> opened;
  for (int i = 0; i < 3; ++i) opened.emplace_back(Tarvik::OpenFile("/dev/null", O_RDONLY));
  int const first = opened[1].Get();
  int const last = opened.back().Get();
  auto const isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
  pid_t const child = ChildProcess::Start([&] {
    Tarvik::CloseEach(first);
    return isOpen(opened.front().Get()) && !isOpen(first) && !isOpen(last) ? 0 : 1;
  });
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

TEST(BaseHelpersUtf8, EveryCharacterIsReadBackFromItsBytes) {
  for (unsigned long point = 0; point <= 0x10FFFF; point += point < 0x3000 ? 1 : 251) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    std::string text;
    Tarvik::AppendUtf8(text, point);
    std::size_t const length = point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
    ASSERT_EQ(text.size(), length) << point;
    ASSERT_EQ(Tarvik::Utf8Length(text + "\x80"), length) << point;
    ASSERT_EQ(Tarvik::Utf8Length(text.substr(0, length - 1)), 0U) << point;
  }
}

TEST(BaseHelpersUtf8, NothingBeginsWithNothing) {
  EXPECT_EQ(Tarvik::Utf8Length(""), 0U);
}

}  // namespace
