// What another process sees of the log: its order among the program's other output, and what is
// left of it when the program dies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <regex>
#include <string>

#include "base/Logger.h"
#include "base/UniqueFd.h"
#include "tests/support/LogFile.h"

namespace {

using Tarvik::UniqueFd;
using Tarvik::Ilog::Error;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::LogLine;
using testing::EndsWith;
using testing::MatchesRegex;

struct Outcome {
  std::string output;
  int status = 0;
};

std::string ReadAll(UniqueFd const& fd) {
  std::string text;
  std::array<char, 4096> piece;
  for (ssize_t n; (n = read(fd.Get(), piece.data(), piece.size())) > 0;) {
    text.append(piece.data(), static_cast<std::size_t>(n));
  }
  return text;
}

/// Does `work` in a child whose standard output is a pipe with the buffering that a pipe has.
template <typename Work>
Outcome InAChild(Work work) {
  std::fflush(nullptr);
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  UniqueFd const reader(ends[0]);
  UniqueFd writer(ends[1]);
  pid_t const child = fork();
  if (child == 0) {
    dup2(writer.Get(), 1);
    static std::array<char, BUFSIZ> buffer;
    std::setvbuf(stdout, buffer.data(), _IOFBF, buffer.size());
    work();
    std::fflush(stdout);
    _exit(0);
  }
  writer = UniqueFd();
  Outcome outcome{ReadAll(reader)};
  EXPECT_EQ(waitpid(child, &outcome.status, 0), child);
  return outcome;
}

class LoggerProcess : public testing::Test {
 protected:
  void SetUp() override {
    Interpose::MakeFile(LogFile::kPath, "");
    Interpose::hooks().now = 1614877509;  // each sink takes the time for itself
  }
};

TEST_F(LoggerProcess, APipeHasAllLinesInTheOrderOfTheProgram) {
  auto const [output, status] = InAChild([] {
    std::cout << "1 cout\n";
    std::puts("2 puts");
    LogLine(Info) << "3 log";
    std::printf("4 printf\n");
    LogLine(Error) << "5 log";
    std::cout << "6 cout" << std::endl;
    std::puts("7 puts");
    std::cout << "8 cout\n";
    std::printf("9 printf\n");
    LogLine(Info) << "10 log";
  });
  EXPECT_EQ(status, 0);
  std::regex const header(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\])");
  EXPECT_EQ(std::regex_replace(output, header, "*"),
            "1 cout\n2 puts\n*3 log\n4 printf\n*[ERROR]5 log\n6 cout\n7 puts\n8 cout\n9 printf\n"
            "*10 log\n");
}

TEST_F(LoggerProcess, ACompletedLineSurvivesAKillRightAfterIt) {
  auto const [output, status] = InAChild([] {
    std::puts("before");
    LogLine(Info) << "the last line";
    kill(getpid(), SIGKILL);
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  EXPECT_THAT(LogFile::Text(), MatchesRegex("\\[.{19}\\]the last line\n"));
  EXPECT_EQ(output, "before\n" + LogFile::Text());
}

TEST_F(LoggerProcess, AnUnfinishedLineDoesNotSurviveAKillInHalves) {
  auto const [output, status] = InAChild([] {
    LogLine(Info) << "whole";
    LogLine line(Info);
    line << "half";
    kill(getpid(), SIGKILL);
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_THAT(LogFile::Text(), EndsWith("]whole\n"));
  EXPECT_EQ(output, LogFile::Text());
}

TEST_F(LoggerProcess, StaticObjectsMayLogWhileTheProgramEnds) {
  auto const [output, status] = InAChild([] {
    LogLine(Info) << "running";
    struct Late {
      ~Late() {
        LogLine(Info) << "ending";
        _exit(7);
      }
    };
    static Late const late;
    std::exit(0);
  });
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_THAT(output, EndsWith("]ending\n"));
  EXPECT_EQ(output, LogFile::Text());
}

}  // namespace
