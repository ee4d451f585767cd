#include "base/ConsoleGuard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <locale>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "base/Logger.h"
#include "base/internal/OutputLine.h"
#include "tests/machine/Machine.h"
#include "tests/support/Capture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Console.h"
#include "tests/support/Descriptors.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using Console::Ends;
using Console::IsNonBlocking;
using Console::Pipe;
using Console::Placed;
using Console::Waiting;
using Tarvik::OutputLine;
using Tarvik::UniqueFd;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;
using Guard = Tarvik::ConsoleGuard;
using Result = Guard::Result;

constexpr int kPatience = 500;  // ms

void Log(std::string const& text) {
  LogLine(Info) << text;
}

std::string Line(std::string const& text) {
  return "[2021-03-04 17:05:09]" + text + "\n";
}

bool IsSame(int one, int other) {
  struct stat first {};
  struct stat second {};
  return fstat(one, &first) == 0 && fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

/// A terminal, of which a test has the other side.
struct Terminal {
  Terminal() {
    grantpt(master.Get());
    unlockpt(master.Get());
    std::array<char, 100> name;
    EXPECT_EQ(ptsname_r(master.Get(), name.data(), name.size()), 0);
    slave = UniqueFd(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    tcgetattr(slave.Get(), &settings);
    cfmakeraw(&settings);
    tcsetattr(slave.Get(), TCSANOW, &settings);
  }

  UniqueFd master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
  UniqueFd slave;
};

struct Sockets {
  Sockets() {
    std::array<int, 2> fds;
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    reader = UniqueFd(fds[0]);
    writer = UniqueFd(fds[1]);
  }

  UniqueFd reader;
  UniqueFd writer;
};

/// What is seen of a descriptor while a guard exists, and after it.
struct Seen {
  Result result = Result::Failed;
  bool isNonBlocking = false;
  bool isSame = false;
  bool isOthersNonBlocking = false;  // who has the same
  bool closesOnExec = false;
  bool isNonBlockingAfter = false;
  bool isSameAfter = false;
  bool isOthersNonBlockingAfter = false;
};

Seen Look(int others) {
  Placed const placed(others);
  Seen seen;
  {
    Guard const guard;
    seen.result = guard.GetOutput();
    seen.isNonBlocking = IsNonBlocking(STDOUT_FILENO);
    seen.isSame = IsSame(STDOUT_FILENO, others);
    seen.isOthersNonBlocking = IsNonBlocking(others);
    seen.closesOnExec = Descriptors::ClosesOnExec(STDOUT_FILENO);
  }
  seen.isNonBlockingAfter = IsNonBlocking(STDOUT_FILENO);
  seen.isSameAfter = IsSame(STDOUT_FILENO, others);
  seen.isOthersNonBlockingAfter = IsNonBlocking(others);
  return seen;
}

class ConsoleGuard : public testing::Test {
 protected:
  void SetUp() override {
    Machine::hooks().now = 1614877509;
    LogFile::BeginAnew();
  }
  // The console's state is the process's.
  void TearDown() override {
    std::clearerr(stdout);
    Pipe const flowing;
    Log("");
  }

  Descriptors::Watch descriptors;
};

void IsOpenedAnewAndPutBack(int fd) {
  Seen const seen = Look(fd);
  EXPECT_EQ(seen.result, Result::Done);
  EXPECT_TRUE(seen.isNonBlocking);
  EXPECT_TRUE(seen.isSame);
  EXPECT_FALSE(seen.isOthersNonBlocking);
  EXPECT_FALSE(seen.closesOnExec);
  EXPECT_FALSE(seen.isNonBlockingAfter);
  EXPECT_TRUE(seen.isSameAfter);
}

TEST_F(ConsoleGuard, OpensAPipeAnewAndPutsItBack) {
  Ends const ends;
  IsOpenedAnewAndPutBack(ends.writer.Get());
}

TEST_F(ConsoleGuard, OpensATerminalAnewAndPutsItBack) {
  Terminal const terminal;
  IsOpenedAnewAndPutBack(terminal.slave.Get());
}

TEST_F(ConsoleGuard, OpensANamedPipeAnewAndPutsItBack) {
  Machine::MakeFile("/root/x", "");
  std::string const path = Machine::Real("/root/pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  UniqueFd const pipe(open(path.c_str(), O_RDWR | O_CLOEXEC));
  IsOpenedAnewAndPutBack(pipe.Get());
}

void IsShared(Seen const& seen) {
  EXPECT_EQ(seen.result, Result::Shared);
  EXPECT_TRUE(seen.isNonBlocking);
  EXPECT_TRUE(seen.isOthersNonBlocking);
  EXPECT_TRUE(seen.isSameAfter);
  EXPECT_FALSE(seen.isNonBlockingAfter);
  EXPECT_FALSE(seen.isOthersNonBlockingAfter);
}

TEST_F(ConsoleGuard, SharesASocketAndPutsItBack) {
  Sockets const sockets;
  IsShared(Look(sockets.writer.Get()));
}

TEST_F(ConsoleGuard, SharesWhatCannotBeOpenedAnew) {
  Ends const ends;
  Machine::hooks().fault = [](Machine::Call const& call) -> std::optional<Machine::Failure> {
    if (call.function == "open" && call.subject.starts_with("/proc/self/fd/")) return EACCES;
    return std::nullopt;
  };
  IsShared(Look(ends.writer.Get()));
}

TEST_F(ConsoleGuard, PutsASocketBackThatTheApplicationHasMovedMeanwhile) {
  Sockets const sockets;
  Ends const ends;
  {
    Placed const placed(sockets.writer.Get());
    Guard const guard;
    dup2(ends.writer.Get(), STDOUT_FILENO);
  }
  EXPECT_FALSE(IsNonBlocking(sockets.writer.Get()));
}

TEST_F(ConsoleGuard, LeavesFilesAndOtherDevicesAlone) {
  for (char const* path : {"/dev/null", "/dev/full", "/root/file"}) {
    Machine::MakeFile("/root/file", "");
    UniqueFd const file(open(path, O_WRONLY | O_CLOEXEC));
    Seen const seen = Look(file.Get());
    EXPECT_EQ(seen.result, Result::NotNeeded);
    EXPECT_FALSE(seen.isNonBlocking);
    EXPECT_TRUE(seen.isSame);
  }
}

TEST_F(ConsoleGuard, LeavesAloneWhatTheApplicationHasMadeNonBlocking) {
  Ends const ends(O_NONBLOCK);
  Seen const seen = Look(ends.writer.Get());
  EXPECT_EQ(seen.result, Result::NotNeeded);
  EXPECT_TRUE(seen.isNonBlocking);
  EXPECT_TRUE(seen.isNonBlockingAfter);
}

TEST_F(ConsoleGuard, TellsThatThereIsNone) {
  Result output = Result::Done;
  Result errors = Result::Done;
  bool isClosed = false;
  {
    Descriptors::NoStandardOnes const none;
    Guard const guard;
    output = guard.GetOutput();
    errors = guard.GetErrors();
    isClosed = fcntl(STDOUT_FILENO, F_GETFD) < 0;
  }
  EXPECT_EQ(output, Result::Closed);
  EXPECT_EQ(errors, Result::Closed);
  EXPECT_TRUE(isClosed);
}

TEST_F(ConsoleGuard, FailsWithoutADescriptorToKeepTheOldOne) {
  Ends const ends;
  ChildProcess::Run([&] {
    Placed const placed(ends.writer.Get());
    auto const used = static_cast<rlim_t>(Descriptors::Open().back()) + 1;
    rlimit const limit{used, used};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 3; fd < static_cast<int>(used); ++fd) {
      if (fcntl(fd, F_GETFD) < 0) dup2(0, fd);
    }
    Guard const guard;
    EXPECT_EQ(guard.GetOutput(), Result::Failed);
    EXPECT_FALSE(IsNonBlocking(STDOUT_FILENO));
  });
}

TEST_F(ConsoleGuard, DoesTheSameForStandardError) {
  Ends const ends;
  std::array<bool, 2> isNonBlocking{};
  Result result = Result::Failed;
  {
    Placed const placed(ends.writer.Get(), STDERR_FILENO);
    {
      Guard const guard;
      result = guard.GetErrors();
      isNonBlocking[0] = IsNonBlocking(STDERR_FILENO);
    }
    isNonBlocking[1] = IsNonBlocking(STDERR_FILENO);
  }
  EXPECT_EQ(result, Result::Done);
  EXPECT_THAT(isNonBlocking, ElementsAre(true, false));
  EXPECT_FALSE(IsNonBlocking(ends.writer.Get()));
}

TEST_F(ConsoleGuard, HoldsNothingThatCommandsInheritButTheStandardOnes) {
  Ends const ends;
  std::vector<int> opened;
  std::vector<bool> closes;
  {
    Placed const placed(ends.writer.Get());
    Descriptors::Watch const watch;
    Guard const guard;
    opened = watch.Opened();
    for (int const fd : opened) closes.push_back(Descriptors::ClosesOnExec(fd));
  }
  EXPECT_FALSE(opened.empty());
  EXPECT_THAT(closes, testing::Each(true));
}

TEST_F(ConsoleGuard, LeavesNoDescriptorBehind) {
  {
    Pipe const pipe;
    Guard const guard;
  }
  EXPECT_THAT(descriptors.Opened(), testing::SizeIs(testing::Le(1U)));  // the log's file
}

TEST_F(ConsoleGuard, LeavesWhatTheApplicationPutsThereLater) {
  for (int const flags : {0, O_NONBLOCK}) {
    Ends const ends;
    Ends const later(flags);
    bool isLaters = false;
    {
      Placed const placed(ends.writer.Get());
      {
        Guard const guard;
        dup2(later.writer.Get(), STDOUT_FILENO);
      }
      isLaters = IsSame(STDOUT_FILENO, later.writer.Get());
    }
    EXPECT_TRUE(isLaters);
  }
}

TEST_F(ConsoleGuard, DropsLinesOnAHaltedTerminalAndTellsHowMany) {
  Terminal const terminal;
  std::string halted;
  std::string shown;
  std::vector<int> asked;
  {
    Placed const placed(terminal.slave.Get());
    Waiting waiting;
    Guard const guard;
    Log("before");
    halted = Console::ReadNow(terminal.master.Get());
    tcflow(terminal.slave.Get(), TCOOFF);
    Log("one");
    Log("two");
    asked = waiting.Asked();
    halted += Console::ReadNow(terminal.master.Get());
    tcflow(terminal.slave.Get(), TCOON);
    Log("after");
    shown = Console::ReadNow(terminal.master.Get());
  }
  EXPECT_EQ(halted, Line("before"));
  EXPECT_EQ(shown, "[CONSOLE] 2 lines dropped\n" + Line("after"));
  EXPECT_THAT(asked, ElementsAre(0, kPatience, 0));
}

TEST_F(ConsoleGuard, DropsLinesOnASocketThatNobodyReadsAndTellsHowMany) {
  Sockets const sockets;
  std::string shown;
  {
    Placed const placed(sockets.writer.Get());
    Waiting const waiting;
    Guard const guard;
    Console::Fill(sockets.writer.Get());
    Log("one");
    Console::ReadNow(sockets.reader.Get());
    Log("after");
    shown = Console::ReadNow(sockets.reader.Get());
  }
  EXPECT_EQ(shown, "[CONSOLE] 1 lines dropped\n" + Line("after"));
}

TEST_F(ConsoleGuard, AddsNoCallToALineWhileTheConsoleFlows) {
  std::vector<std::string> writes;
  std::vector<int> asked;
  {
    Pipe const pipe;
    Waiting waiting;
    Guard const guard;
    fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK | O_DIRECT);  // each write is a packet
    std::string packet(4096, '\0');
    for (int line = 0; line < 3; ++line) {
      Log("one");
      ssize_t const length = read(pipe.ends.reader.Get(), packet.data(), packet.size());
      writes.push_back(packet.substr(0, static_cast<std::size_t>(length)));
    }
    asked = waiting.Asked();
  }
  EXPECT_THAT(writes, testing::Each(Line("one")));
  EXPECT_THAT(asked, IsEmpty());
}

/// A guarded pipe that is full.
struct Full {
  Full() { pipe.Fill(); }

  Pipe pipe;
  Waiting waiting;
  std::optional<Guard> guard{std::in_place};
};

TEST_F(ConsoleGuard, KeepsTheStreamGoodAndCountsWhatItLoses) {
  std::string shown;
  bool isGood = false;
  {
    Full console;
    std::cout << std::string(10'000, 'a') << std::flush;
    isGood = std::cout.good();
    console.pipe.Read();
    std::cout << "printed" << std::endl;
    shown = console.pipe.Read();
  }
  EXPECT_TRUE(isGood);
  EXPECT_THAT(shown, testing::EndsWith("\n[CONSOLE] 1 lines dropped\nprinted\n"));
}

TEST_F(ConsoleGuard, TellsOfATextThatIsCutThoughTheConsoleFlows) {
  std::string shown;
  {
    Pipe const pipe;
    Waiting const waiting;
    Guard const guard;
    std::cout << std::string(10'000, 'a') << std::flush;
    pipe.Read();
    Log("after");
    shown = pipe.Read();
  }
  EXPECT_EQ(shown, "\n[CONSOLE] 1 lines dropped\n" + Line("after"));
}

TEST_F(ConsoleGuard, AsksNothingForALineOnceTheStreamHasFlowedAgain) {
  std::vector<int> asked;
  {
    Full console;
    Log("dropped");
    console.pipe.Read();
    console.waiting.during = [&] { console.pipe.Read(); };
    std::cout << "text" << std::endl;
    console.waiting.Asked();
    Log("log");
    asked = console.waiting.Asked();
  }
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(ConsoleGuard, TellsOfATextThatIsLostWhileALineGoesOutAtLast) {
  std::string shown;
  {
    Full console;
    Log("dropped");
    console.pipe.Read();
    int calls = 0;  // the count, then the line
    Machine::hooks().console = [&](int, void const*, std::size_t) -> std::optional<ssize_t> {
      if (++calls != 2) return std::nullopt;
      console.pipe.Fill();
      std::cout << std::string(10'000, 'a') << std::flush;
      console.pipe.Read();
      return std::nullopt;
    };
    Log("log");
    Machine::hooks().console = nullptr;
    console.pipe.Read();
    Log("after");
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "\n[CONSOLE] 1 lines dropped\n" + Line("after"));
}

TEST_F(ConsoleGuard, LetsTheLibraryPrintItsPlainLinesAfterTheConsoleWasFull) {
  std::string shown;
  {
    Full console;
    for (int line = 0; line < 1000; ++line) OutputLine() << "Unmount SD card success.";
    console.pipe.Read();
    Log("log");
    console.pipe.Read();
    OutputLine() << "Mount SD card success";
    std::puts("NOT PRESENT");
    std::fflush(stdout);
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "Mount SD card success\nNOT PRESENT\n");
}

TEST_F(ConsoleGuard, WaitsForALineOfTheStreamOnceAndThenNoMore) {
  std::vector<int> asked;
  std::string shown;
  {
    Full console;
    for (int line = 0; line < 3; ++line) OutputLine() << "lost";
    Log("dropped");
    asked = console.waiting.Asked();
    console.pipe.Read();
    OutputLine() << "plain";
    shown = console.pipe.Read();
  }
  EXPECT_EQ(std::ranges::count(asked, kPatience), 1);
  EXPECT_EQ(std::ranges::count(asked, 0), static_cast<std::ptrdiff_t>(asked.size()) - 1);
  EXPECT_EQ(shown, "\n[CONSOLE] 4 lines dropped\nplain\n");
}

/// Whether a slow console shows all of a text that is printed again and again.
template <typename Print>
bool ShowsAll(Print print, std::string const& printed) {
  std::string shown;
  std::string expected;
  Pipe const pipe;
  Waiting waiting;
  Guard const guard;
  waiting.during = [&] { shown += pipe.Read(); };
  for (int line = 0; line < 300; ++line) {
    Log("log");
    print();
    expected += Line("log") + printed;
  }
  shown += pipe.Read();
  return shown == expected;
}

// So long that it is what finds the console full, and not the line of the log before it.
std::string Long() {
  return std::string(500, 'p');
}

TEST_F(ConsoleGuard, LosesNoLineOfTheStreamOnASlowConsole) {
  EXPECT_TRUE(ShowsAll([] { OutputLine() << Long(); }, Long() + "\n"));
}

TEST_F(ConsoleGuard, LosesNoTextThatIsFlushedOnASlowConsole) {
  EXPECT_TRUE(ShowsAll([] { std::cout << Long() << std::flush; }, Long()));
}

TEST_F(ConsoleGuard, LosesNoLineOfTheStreamWhereTheCLibraryFlushesEach) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Scoped::AtEnd const fully([] { std::setvbuf(stdout, nullptr, _IOFBF, 0); });
  EXPECT_TRUE(ShowsAll([] { std::cout << Long() + "\n"; }, Long() + "\n"));
}

TEST_F(ConsoleGuard, PrintsAllInTheOrderOfTheProgram) {
  std::string shown;
  {
    Pipe const pipe;
    Waiting const waiting;
    Guard const guard;
    std::cout << "1 cout\n";
    std::puts("2 puts");
    Log("3 log");
    std::cout << "4 " << 4 << 'x';
    std::printf("5 printf\n");
    std::cout << "6 cout" << std::endl;
    shown = pipe.Read();
  }
  EXPECT_EQ(shown, "1 cout\n2 puts\n" + Line("3 log") + "4 4x5 printf\n6 cout\n");
}

TEST_F(ConsoleGuard, KeepsTheStreamsOfStandardErrorGood) {
  std::string shown;
  std::string output;
  bool isGood = false;
  std::vector<int> asked;
  {
    Ends const ends;
    Pipe const pipe;
    Placed const placed(ends.writer.Get(), STDERR_FILENO);
    Waiting waiting;
    Guard const guard;
    Console::Fill(ends.writer.Get());
    std::cerr << "lost" << 1 << std::endl;
    std::clog << "lost" << std::endl;
    isGood = std::cerr.good() && std::clog.good();
    Console::ReadNow(ends.reader.Get());
    std::cerr << "error" << std::endl;
    waiting.Asked();  // std::cerr flushes std::cout first
    std::clog << "log" << std::endl;
    shown = Console::ReadNow(ends.reader.Get());
    Log("log");
    output = pipe.Read();
    asked = waiting.Asked();
  }
  EXPECT_TRUE(isGood);
  EXPECT_EQ(shown, "error\nlog\n");
  EXPECT_EQ(output, Line("log"));
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(ConsoleGuard, LetsAStreamThatThrowsGoOn) {
  auto const output = Scoped::Output(std::cout.rdbuf(), std::ios::badbit);
  Full console;
  std::cout << std::string(10'000, 'a') << std::flush;
  console.pipe.Read();
}

TEST_F(ConsoleGuard, LetsTheStreamFailWhereItsReaderHasGone) {
  struct sigaction ignored {};
  ignored.sa_handler = SIG_IGN;
  auto const pipes = Scoped::SignalAction(SIGPIPE, ignored);
  bool isGood = true;
  bool isErrorGood = true;
  bool isPutGood = true;
  {
    Ends ends;
    Placed const output(ends.writer.Get());
    Placed const errors(ends.writer.Get(), STDERR_FILENO);
    Guard const guard;
    ends.reader = UniqueFd();
    std::cout << "text" << std::endl;
    isGood = std::cout.good();
    std::cerr << "text" << 'x';
    isErrorGood = std::cerr.good();
    std::cerr.clear();
    std::cerr.put('x');
    isPutGood = std::cerr.good();
  }
  std::cout.clear();
  std::cerr.clear();
  EXPECT_FALSE(isGood);
  EXPECT_FALSE(isErrorGood);
  EXPECT_FALSE(isPutGood);
}

TEST_F(ConsoleGuard, LeavesAStreamSilentThatTheApplicationHasSilenced) {
  std::string shown;
  {
    Pipe const pipe;
    std::cout.setstate(std::ios::failbit);
    {
      Guard const guard;
      std::cout << "silent" << std::endl;
    }
    std::cout << "silent" << std::endl;
    std::cout.clear();
    std::cout << "heard" << std::endl;
    shown = pipe.Read();
  }
  EXPECT_EQ(shown, "heard\n");
}

TEST_F(ConsoleGuard, TakesAStreamWithoutABufferForSilenced) {
  Pipe const pipe;
  auto* const buffer = std::cout.rdbuf(nullptr);
  {
    Guard const guard;
    std::cout << "silent" << std::endl;
  }
  EXPECT_EQ(std::cout.rdbuf(), nullptr);
  std::cout.rdbuf(buffer);
}

TEST_F(ConsoleGuard, LeavesABufferThatTheApplicationPutsThereLater) {
  std::ostringstream text;
  auto* const before = std::cout.rdbuf();
  {
    Pipe const pipe;
    Guard const guard;
    std::cout.rdbuf(text.rdbuf());
  }
  EXPECT_EQ(std::cout.rdbuf(), text.rdbuf());
  std::cout.rdbuf(before);
}

TEST_F(ConsoleGuard, PutsTheStreamsBufferBack) {
  auto* const before = std::cout.rdbuf();
  {
    Pipe const pipe;
    Guard const guard;
    EXPECT_NE(std::cout.rdbuf(), before);
  }
  EXPECT_EQ(std::cout.rdbuf(), before);
}

TEST_F(ConsoleGuard, HandsALocaleOnToTheStreamsBuffer) {
  std::locale const other(std::locale::classic(), new std::numpunct<char>);
  std::locale buffers;
  {
    std::stringbuf below;
    auto const output = Scoped::Output(&below, std::ios::goodbit);
    Pipe const pipe;
    Guard const guard;
    std::locale const before = std::cout.imbue(other);
    buffers = below.getloc();
    std::cout.imbue(before);
  }
  EXPECT_EQ(buffers, other);
}

TEST_F(ConsoleGuard, LetsAProcessEndWhoseConsoleIsFull) {
  Ends const ends;
  pid_t const child = ChildProcess::Start([&] {
    ChildProcess::EndInTime();
    Machine::hooks().poll = [](pollfd*, nfds_t, int) { return Machine::Answer{0, 0}; };
    dup2(ends.writer.Get(), STDOUT_FILENO);
    static std::array<char, BUFSIZ> buffer;
    std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
    {
      Guard const guard;
      Console::Fill(ends.writer.Get());
      std::printf("left in the buffer");
    }
    std::printf("later");
    std::fflush(stdout);
    return IsNonBlocking(STDOUT_FILENO) ? 0 : 1;
  });
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

TEST_F(ConsoleGuard, LeavesNothingThatWouldWaitForAFullSocketAtTheEndOfTheProcess) {
  Sockets const sockets;
  pid_t const child = ChildProcess::Start([&] {
    ChildProcess::EndInTime();
    dup2(sockets.writer.Get(), STDOUT_FILENO);
    std::setvbuf(stdout, nullptr, _IOFBF, 0);
    {
      Guard const guard;
      Console::Fill(sockets.writer.Get());
      std::printf("left in the buffer");
    }
    return std::fflush(stdout);
  });
  EXPECT_EQ(ChildProcess::Wait(child), 0);
}

TEST_F(ConsoleGuard, LeavesTheStreamsOfFilesAlone) {
  bool isLeft = false;
  Capture::AllOutput([&] {
    auto const* const output = std::cout.rdbuf();
    auto const* const errors = std::cerr.rdbuf();
    Guard const guard;
    isLeft = std::cout.rdbuf() == output && std::cerr.rdbuf() == errors;
  });
  EXPECT_TRUE(isLeft);
}

TEST_F(ConsoleGuard, PutsNothingBackInAChild) {
  Sockets const sockets;
  Placed const placed(sockets.writer.Get());
  std::optional<Guard> guard(std::in_place);
  pid_t const child = ChildProcess::Start([&] {
    guard.reset();
    return 0;
  });
  ChildProcess::Wait(child);
  bool const isNonBlocking = IsNonBlocking(sockets.writer.Get());
  guard.reset();
  EXPECT_TRUE(isNonBlocking);
}

TEST_F(ConsoleGuard, MayBeMadeAgain) {
  Ends const ends;
  IsOpenedAnewAndPutBack(ends.writer.Get());
  IsOpenedAnewAndPutBack(ends.writer.Get());
}

TEST_F(ConsoleGuard, LogsNothingAndPrintsNothing) {
  std::string shown;
  {
    Pipe const pipe;
    { Guard const guard; }
    shown = pipe.Read();
  }
  EXPECT_EQ(shown, "");
  EXPECT_EQ(LogFile::Text(), "");
}

TEST_F(ConsoleGuard, HasATextForEachResult) {
  EXPECT_STREQ(Guard::Describe(Result::Done), "the console does not block");
  EXPECT_STREQ(Guard::Describe(Result::Shared),
               "the console does not block, nor for others who have it");
  EXPECT_STREQ(Guard::Describe(Result::NotNeeded), "the console never blocks");
  EXPECT_STREQ(Guard::Describe(Result::Closed), "there is no console");
  EXPECT_STREQ(Guard::Describe(Result::Failed), "the console blocks");
}

}  // namespace
