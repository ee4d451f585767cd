// Many threads log at full speed while another one switches the sinks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/Logger.h"
#include "tests/machine/Threads.h"
#include "tests/support/Capture.h"
#include "tests/support/LogFile.h"

namespace {

using LogFile::FileSink;
using Tarvik::Ilog::Info;
using Tarvik::Ilog::Logger;
using Tarvik::Ilog::LogLine;

// Every header takes a lock, every completed line signals once.
thread_local int locksOfThisThread = 0;
std::atomic<int> signals = 0;

constexpr int kThreads = 8;
constexpr int kLines = 1000;

/// The text of one line, long enough to be torn if anything tears.
std::string Message(int thread, int number) {
  return std::to_string(thread) + " " + std::to_string(number) + " " +
         std::string(static_cast<std::size_t>(20 + number % 60), static_cast<char>('a' + thread)) +
         ".";
}

/// The messages of a log, by thread, in the order of the log. Every line must be whole.
std::map<int, std::vector<std::string>> ByThread(std::string const& log) {
  static std::regex const whole(LogFile::kHeader + R"((\d) (\d+) ([a-h])\3*\.)");
  std::map<int, std::vector<std::string>> messages;
  for (auto const& line : LogFile::SplitLines(log)) {
    std::smatch parts;
    EXPECT_TRUE(std::regex_match(line, parts, whole)) << line;
    if (parts.empty()) continue;
    messages[std::stoi(parts[1])].push_back(line.substr(LogFile::kHeaderLength));
  }
  return messages;
}

template <typename Work>
void OnAllThreads(Work work) {
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  for (auto& thread : threads) thread.join();
}

/// Switches the given sinks without pause as long as it lives, and leaves them enabled.
template <typename... Sinks>
class Toggler {
 public:
  explicit Toggler(Sinks&... sinks)
      : thread([this, &sinks...] {
          while (!stop) ((sinks.enabled = !sinks.enabled), ...);
          ((sinks.enabled = true), ...);
        }) {}
  Toggler(Toggler const&) = delete;
  Toggler& operator=(Toggler const&) = delete;
  ~Toggler() {
    stop = true;
    thread.join();
  }

 private:
  std::atomic<bool> stop = false;
  std::thread thread;
};

class LoggerThreads : public testing::Test {
 protected:
  void SetUp() override {
    LogFile::BeginAnew();
    signals = 0;
    threads.lock = [](auto&&) {
      ++locksOfThisThread;
      return std::nullopt;
    };
    Machine::hooks().raiseSemaphore = [](auto&&) { ++signals; };
  }

  Machine::ThreadHooks threads;
  static inline Logger& logger = *Logger::GetInstance();
};

TEST_F(LoggerThreads, EveryLineIsWholeOnceAndInTheOrderOfItsThread) {
  std::string const console = Capture::Output([] {
    OnAllThreads([](int thread) {
      for (int i = 0; i < kLines; ++i) LogLine(Info) << Message(thread, i);
    });
  });
  std::map<int, std::vector<std::string>> expected;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int i = 0; i < kLines; ++i) expected[thread].push_back(Message(thread, i));
  }
  EXPECT_EQ(ByThread(LogFile::Text()), expected);
  EXPECT_EQ(ByThread(console), expected);
  EXPECT_EQ(signals, 2 * kThreads * kLines);
}

TEST_F(LoggerThreads, BothSinksSeeTheLinesInTheSameOrder) {
  std::string const console = Capture::Output([] {
    OnAllThreads([](int thread) {
      for (int i = 0; i < kLines / 10; ++i) LogLine(Info) << Message(thread, i);
    });
  });
  EXPECT_EQ(LogFile::Text(), console);
}

// A line that had no header must not be in the file; one that had may have been dropped as a whole.
TEST_F(LoggerThreads, ASinkSwitchedAtAnyMomentHasOnlyWholeLinesThatWereBegun) {
  FileSink sink;
  std::map<int, std::set<std::string>> begun;
  std::mutex begunMutex;
  {
    Toggler const toggler(sink);
    OnAllThreads([&](int thread) {
      std::set<std::string> mine;
      for (int i = 0; i < kLines; ++i) {
        int const locks = locksOfThisThread;
        sink.WriteHeader(Info);
        if (locksOfThisThread > locks) mine.insert(Message(thread, i));
        sink << thread << " " << i << Message(thread, i).substr(Message(thread, i).rfind(' '));
        sink.EndLine();
      }
      std::lock_guard const lock(begunMutex);
      begun[thread] = mine;
    });
  }
  for (auto const& [thread, messages] : ByThread(LogFile::Text())) {
    for (auto const& message : messages) EXPECT_TRUE(begun[thread].contains(message)) << message;
  }
  EXPECT_TRUE(LogFile::IsFree(sink));
}

TEST_F(LoggerThreads, ALoggerSwitchedAtAnyMomentTearsNoLineAndKeepsNoLock) {
  std::string const console = Capture::Output([] {
    Toggler const toggler(*logger.fileSink, *logger.consoleSink);
    OnAllThreads([](int thread) {
      for (int i = 0; i < kLines; ++i) {
        LogLine(Info) << thread << " " << i
                      << Message(thread, i).substr(Message(thread, i).rfind(' '));
      }
    });
  });
  for (auto const& log : {console, LogFile::Text()}) {
    for (auto const& [thread, messages] : ByThread(log)) {
      std::vector<int> numbers;
      for (auto const& message : messages) {
        numbers.push_back(std::stoi(message.substr(2)));
        EXPECT_EQ(message, Message(thread, numbers.back()));
      }
      EXPECT_THAT(numbers, testing::WhenSorted(testing::ElementsAreArray(numbers)));
      EXPECT_EQ(std::set<int>(numbers.begin(), numbers.end()).size(), numbers.size());
    }
  }
  EXPECT_TRUE(LogFile::IsFree());
}

TEST_F(LoggerThreads, FlushReturnsWhileOthersLog) {
  Capture::Output([] {
    OnAllThreads([](int thread) {
      for (int i = 0; i < kLines / 10; ++i) {
        LogLine(Info) << Message(thread, i);
        if (thread == 0) logger.Flush();
      }
    });
  });
  EXPECT_EQ(ByThread(LogFile::Text()).size(), static_cast<std::size_t>(kThreads));
}

}  // namespace
