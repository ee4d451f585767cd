// The console's sink where standard output does not block and nobody reads it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Machine.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Console.h"
#include "tests/support/Gate.h"
#include "tests/support/LogFile.h"
#include "tests/support/Scoped.h"

namespace {

using namespace std::chrono_literals;
using Console::Pipe;
using Console::Waiting;
using Machine::Answer;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char const* kHeader = "[2021-03-04 17:05:09]";
constexpr int kPatience = 500;  // ms

void Log(std::string const& text) {
  LogLine(Info) << text;
}

std::string Line(std::string const& text) {
  return kHeader + text + "\n";
}

class ConsoleSink : public testing::Test {
 protected:
  void SetUp() override {
    Machine::hooks().now = 1614877509;
    LogFile::BeginAnew();
  }
  // The console's state is the process's.
  void TearDown() override {
    Pipe const flowing;
    Log("");
  }
};

/// A pipe that does not block, with a clock that waits for nobody.
struct Unread {
  Unread() { Console::SetNonBlocking(pipe.ends.writer.Get()); }

  Pipe pipe;
  Waiting waiting;
};

TEST_F(ConsoleSink, MakesOneCallForALineWhileTheConsoleFlows) {
  std::vector<std::string> writes;
  std::vector<int> asked;
  {
    Pipe const pipe(O_DIRECT | O_NONBLOCK);  // each write is a packet
    Waiting waiting;
    std::string packet(4096, '\0');
    for (int line = 0; line < 3; ++line) {
      Log("one");
      ssize_t const length = read(pipe.ends.reader.Get(), packet.data(), packet.size());
      writes.push_back(packet.substr(0, static_cast<std::size_t>(length)));
    }
    writes.push_back(pipe.Read());
    asked = waiting.Asked();
  }
  EXPECT_THAT(writes, ElementsAre(Line("one"), Line("one"), Line("one"), ""));
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(ConsoleSink, WaitsOnceAndThenDropsLinesWithoutWaiting) {
  std::vector<int> first;
  std::vector<int> others;
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    Log("one");
    first = console.waiting.Asked();
    Log("two");
    Log("three");
    others = console.waiting.Asked();
    shown = console.pipe.ReadPrinted();
  }
  EXPECT_THAT(first, ElementsAre(0, kPatience));
  EXPECT_THAT(others, ElementsAre(0, 0));
  EXPECT_EQ(shown, "");
  EXPECT_EQ(LogFile::Text(), Line("one") + Line("two") + Line("three"));
}

TEST_F(ConsoleSink, TellsHowManyLinesWereDroppedBeforeTheNext) {
  std::string shown;
  std::vector<int> asked;
  {
    Unread console;
    console.pipe.Fill();
    for (int line = 0; line < 3; ++line) Log("dropped");
    console.pipe.Read();
    Log("after");
    console.waiting.Asked();
    Log("and on");
    asked = console.waiting.Asked();
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "[CONSOLE] 3 lines dropped\n" + Line("after") + Line("and on"));
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(ConsoleSink, WaitsAnewAfterTheConsoleHasFlowed) {
  std::vector<int> asked;
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    Log("dropped");
    console.pipe.Read();
    Log("after");
    console.pipe.Fill();
    console.waiting.Asked();
    Log("dropped");
    asked = console.waiting.Asked();
    console.pipe.Read();
    Log("again");
    shown = console.pipe.Read();
  }
  EXPECT_THAT(asked, ElementsAre(0, kPatience));
  EXPECT_EQ(shown, "[CONSOLE] 1 lines dropped\n" + Line("again"));
}

TEST_F(ConsoleSink, LosesNothingOnASlowConsole) {
  std::string shown;
  std::string expected;
  {
    Unread console;
    console.waiting.during = [&] { shown += console.pipe.Read(); };
    for (int line = 0; line < 300; ++line) {
      Log(std::to_string(line));
      expected += Line(std::to_string(line));
    }
    shown += console.pipe.Read();
  }
  EXPECT_EQ(shown, expected);
  EXPECT_EQ(LogFile::Text(), expected);
}

TEST_F(ConsoleSink, CompletesALineThatGoesOutInParts) {
  std::string const text(20'000, 'a');
  std::string shown;
  std::vector<int> asked;
  {
    Unread console;
    console.waiting.during = [&] {
      console.waiting.Pass(50ms);
      shown += console.pipe.Read();
    };
    Log(text);
    asked = console.waiting.Asked();
    shown += console.pipe.Read();
  }
  EXPECT_EQ(shown, Line(text));
  EXPECT_THAT(asked, ElementsAre(0, 500, 0, 450, 0, 400, 0, 350));
}

TEST_F(ConsoleSink, WaitsForTheWholeOfALineNoLongerThanForAnother) {
  std::string const text(100'000, 'a');
  std::vector<int> asked;
  {
    Unread console;
    console.waiting.during = [&] {
      console.waiting.Pass(200ms);
      console.pipe.Read();
    };
    Log(text);
    asked = console.waiting.Asked();
  }
  EXPECT_THAT(asked, ElementsAre(0, 500, 0, 300, 0, 100, 0));
}

TEST_F(ConsoleSink, EndsALineThatWasCutBeforeTheNext) {
  std::string shown;
  {
    Unread console;
    Log(std::string(10'000, 'a'));
    std::string const part = console.pipe.Read();
    Log("after");
    shown = part + console.pipe.Read();
  }
  EXPECT_EQ(shown, kHeader + std::string(4096 - 21, 'a') + "\n[CONSOLE] 1 lines dropped\n" +
                       Line("after"));
  EXPECT_EQ(LogFile::Text(), Line(std::string(10'000, 'a')) + Line("after"));
}

TEST_F(ConsoleSink, DoesNotAskForEverOneThatSaysThatItWouldTakeALineAndDoesNot) {
  std::vector<int> asked;
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    console.waiting.answer = [&](int) {
      console.waiting.Pass(200ms);
      return Answer{1, 0};
    };
    Log("one");
    asked = console.waiting.Asked();
    console.waiting.answer = nullptr;
    Log("two");
    console.pipe.Read();
    Log("three");
    shown = console.pipe.Read();
  }
  EXPECT_THAT(asked, ElementsAre(0, 0, 0, 0));
  EXPECT_EQ(shown, "[CONSOLE] 2 lines dropped\n" + Line("three"));
}

// The count is told in full, or again.
TEST_F(ConsoleSink, TellsTheCountAgainWhereItCouldNotBeTold) {
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    Log("one");
    console.waiting.answer = [](int) { return Answer{1, 0}; };
    Log("two");  // it says that it would take the count
    console.waiting.answer = nullptr;
    console.pipe.Read();
    Log("three");
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "[CONSOLE] 2 lines dropped\n" + Line("three"));
}

// A terminal may take a few bytes; a pipe takes all of so short a text, or nothing.
TEST_F(ConsoleSink, EndsACountOfWhichAPartIsOutAndTellsItAgain) {
  for (std::string const part : {"[", "[CONSOLE] 1 "}) {
    std::string shown;
    {
      Unread console;
      console.pipe.Fill();
      Log("dropped");
      console.pipe.Read();
      Machine::hooks().console = [&, calls = 0](int fd, void const* text, std::size_t) mutable {
        ++calls;
        if (calls == 1) return std::optional<ssize_t>(syscall(SYS_write, fd, text, part.size()));
        if (calls > 2) return std::optional<ssize_t>();
        errno = EAGAIN;
        return std::optional<ssize_t>(-1);
      };
      Log("dropped, too");
      shown = console.pipe.Read();
      Log("after");
      shown += console.pipe.Read();
    }
    EXPECT_EQ(shown, part + "\n[CONSOLE] 2 lines dropped\n" + Line("after"));
    Machine::hooks().console = nullptr;
  }
}

TEST_F(ConsoleSink, EndsALineThatWasCutAlsoWhereThatFailsAtFirst) {
  std::string shown;
  {
    Unread console;
    Log(std::string(10'000, 'a'));
    console.waiting.answer = [](int) { return Answer{1, 0}; };
    Log("dropped");  // it says that it would take the end
    console.waiting.answer = nullptr;
    console.pipe.Read();
    Log("after");
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "\n[CONSOLE] 2 lines dropped\n" + Line("after"));
}

TEST_F(ConsoleSink, WaitsNoLongerForSignals) {
  std::vector<int> asked;
  {
    Unread console;
    console.pipe.Fill();
    int signals = 3;
    console.waiting.answer = [&](int limit) -> std::optional<Answer> {
      if (limit == 0 || signals-- == 0) return std::nullopt;
      console.waiting.Pass(100ms);
      return Answer::Failure(EINTR);
    };
    Log("one");
    asked = console.waiting.Asked();
  }
  EXPECT_THAT(asked, ElementsAre(0, 500, 400, 300, 200));
}

TEST_F(ConsoleSink, KeepsWhatWasPrintedUntilTheConsoleFlows) {
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    Log("one");
    std::printf("kept");
    Log("two");
    console.pipe.Read();
    Log("three");
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "[CONSOLE] 2 lines dropped\nkept" + Line("three"));
}

TEST_F(ConsoleSink, CountsWhatWasPrintedAndNotTaken) {
  std::string shown;
  {
    Unread console;
    console.pipe.Fill();
    std::printf("lost");
    Log("one");
    console.pipe.Read();
    std::printf("printed ");
    Log("two");
    shown = console.pipe.Read();
  }
  EXPECT_EQ(shown, "\n[CONSOLE] 2 lines dropped\nprinted " + Line("two"));
}

TEST_F(ConsoleSink, TellsOfALostTextBeforeALineThatWouldStillFit) {
  std::string shown;
  {
    Unread console;
    console.waiting.during = [&] { shown += console.pipe.ReadPrinted(); };
    std::string const filling(3000, 'x');
    ASSERT_EQ(write(STDOUT_FILENO, filling.data(), filling.size()), 3000);
    std::printf("%s", std::string(2000, 'a').c_str());
    Log("fits");
    shown += console.pipe.Read();
  }
  EXPECT_EQ(shown, "\n[CONSOLE] 1 lines dropped\n" + Line("fits"));
}

TEST_F(ConsoleSink, KeepsWhatIsPrintedMeanwhileOutOfALineThatGoesOutInParts) {
  std::string const text(10'000, 'a');
  std::string shown;
  {
    Unread console;
    console.waiting.during = [&] {
      std::printf(".");
      shown += console.pipe.Read();
    };
    Log(text);
    shown += console.pipe.Read();
  }
  EXPECT_EQ(shown, Line(text));
}

TEST_F(ConsoleSink, IsNotWaitedForWhereItsReaderHasGone) {
  struct sigaction ignored {};
  ignored.sa_handler = SIG_IGN;
  auto const pipes = Scoped::SignalAction(SIGPIPE, ignored);
  std::vector<int> asked;
  std::string shown;
  {
    Unread console;
    {
      Console::Ends ends;
      Console::Placed const placed(ends.writer.Get());
      ends.reader = Tarvik::UniqueFd();
      Log("lost");
      asked = console.waiting.Asked();
    }
    Log("after");
    shown = console.pipe.Read();
  }
  EXPECT_THAT(asked, IsEmpty());
  EXPECT_EQ(shown, Line("after"));
}

TEST_F(ConsoleSink, KeepsASecondThreadWaitingNoLongerThanTheFirst) {
  std::vector<int> asked;
  {
    Unread console;
    console.pipe.Fill();
    Gate gate;
    console.waiting.during = [&] { gate.Wait(); };
    std::thread first([] { Log("one"); });
    gate.AwaitThread();
    std::thread second([] { Log("two"); });
    std::thread third([] { Log("three"); });
    gate.Open();
    first.join();
    second.join();
    third.join();
    asked = console.waiting.Asked();
  }
  EXPECT_THAT(asked, ElementsAre(0, kPatience, 0, 0));
  EXPECT_THAT(LogFile::SplitLines(LogFile::Text()), SizeIs(3));
}

TEST_F(ConsoleSink, LeavesTheParentsCountToTheParent) {
  std::string childs;
  std::string parents;
  {
    Unread console;
    Log(std::string(10'000, 'a'));
    console.pipe.Read();
    pid_t const child = ChildProcess::Start([] {
      Log("child");
      return 0;
    });
    ChildProcess::Wait(child);
    childs = console.pipe.Read();
    Log("parent");
    parents = console.pipe.Read();
  }
  EXPECT_EQ(childs, Line("child"));
  EXPECT_EQ(parents, "\n[CONSOLE] 1 lines dropped\n" + Line("parent"));
}

}  // namespace
