// Threads that print while the console is guarded. For the race detector, too.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <latch>
#include <string>
#include <thread>

#include "base/ConsoleGuard.h"
#include "base/Logger.h"
#include "base/internal/OutputLine.h"
#include "tests/support/Console.h"

namespace {

std::size_t Count(std::string const& text, char character) {
  return static_cast<std::size_t>(std::ranges::count(text, character));
}

TEST(ConsoleGuardThreads, MayPrintAtOnce) {
  constexpr std::size_t kLines = 1000;  // which a pipe takes
  std::string shown;
  {
    Console::Ends const pipe;
    Console::Placed const placed(pipe.writer.Get());
    Tarvik::ConsoleGuard const guard;
    std::latch bothBegin(2);
    std::thread loader([&bothBegin] {
      bothBegin.arrive_and_wait();
      for (std::size_t line = 0; line < kLines; ++line) Tarvik::OutputLine() << "library";
    });
    bothBegin.arrive_and_wait();
    for (std::size_t line = 0; line < kLines; ++line) {
      std::cout << "application\n";
      Tarvik::Ilog::LogLine(Tarvik::Ilog::Info) << "log";
    }
    loader.join();
    std::cout.flush();
    shown = Console::ReadNow(pipe.reader.Get());
  }
  EXPECT_EQ(Count(shown, '\n'), 3 * kLines);
  EXPECT_EQ(Count(shown, 'c'), kLines);
  EXPECT_EQ(Count(shown, 'y'), kLines);
  EXPECT_TRUE(std::cout.good());
}

}  // namespace
