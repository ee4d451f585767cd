// The text of a line, gathered from pieces.
#include "base/LineBuffer.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/machine/Allocation.h"

namespace {

using Tarvik::Ilog::LineBuffer;

TEST(LineBuffer, GathersPiecesAndWhatAStreamWrites) {
  LineBuffer line;
  std::ostream stream(&line);
  EXPECT_TRUE(line.Append("one "));
  stream << 2 << '\t' << "three";
  stream.put('\n');
  EXPECT_EQ(line.View(), "one 2\tthree\n");
  line.Clear();
  EXPECT_EQ(line.View(), "");
}

TEST(LineBuffer, StaysAsItIsWithoutMemoryForAPiece) {
  LineBuffer line;
  std::string const piece(100, 'x');
  Machine::FailingAllocation const failing(1);
  EXPECT_FALSE(line.Append(piece));
  EXPECT_EQ(line.View(), "");
}

TEST(LineBuffer, AStreamWithoutMemoryForAPieceOrACharacterIsSpoilt) {
  for (bool const character : {false, true}) {
    LineBuffer line;
    std::string const full(15, 'x');  // as much as a text holds without memory of its own
    line.Append(full);
    std::ostream stream(&line);
    Machine::FailingAllocation const failing(1);
    character ? stream.put('y') : stream << "yz";
    Machine::FailingAllocation::Stop();
    EXPECT_TRUE(stream.bad());
    EXPECT_EQ(line.View(), full);
  }
}

}  // namespace
