#include "base/IException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

using Tarvik::IException;

TEST(IException, SaysExactlyItsText) {
  IException const e("Empty file path");
  EXPECT_STREQ(e.what(), "Empty file path");
  EXPECT_STREQ(e.message, "Empty file path");
  EXPECT_EQ(e.what(), e.message);
}

TEST(IException, HasTheCodeZeroUnlessGivenOne) {
  EXPECT_EQ(IException("text").code, 0);
  EXPECT_EQ(IException("Stat error (1)", ENOENT).code, ENOENT);
  EXPECT_EQ(IException("text", -1).code, -1);
}

TEST(IException, MayHaveNoText) {
  EXPECT_STREQ(IException("").what(), "");
  EXPECT_STREQ(IException(std::string_view()).what(), "");
}

TEST(IException, CutsItsTextAt1023Bytes) {
  std::string const longest(1023, 'x');
  EXPECT_EQ(IException(longest).what(), longest);
  EXPECT_EQ(IException(longest + "y").what(), longest);
  EXPECT_EQ(IException(std::string(5000, 'x')).what(), longest);
}

TEST(IException, EndsItsTextWithNulsToTheLastByte) {
  IException const e("ab");
  EXPECT_EQ(std::strlen(e.what()), 2U);
  for (std::size_t i = 2; i < IException::kCapacity; ++i) ASSERT_EQ(e.message[i], '\0');
}

TEST(IException, IsCaughtAsStandardExceptionWithNothingLost) {
  try {
    throw IException("Get space stat error", EIO);
  } catch (std::exception const& e) {
    EXPECT_STREQ(e.what(), "Get space stat error");
    EXPECT_EQ(dynamic_cast<IException const&>(e).code, EIO);
  }
}

TEST(IException, CopiesAreIndependent) {
  IException first("first", 1);
  IException second(first);
  EXPECT_STREQ(second.what(), "first");
  EXPECT_NE(first.what(), second.what());
  second = IException("second", 2);
  EXPECT_STREQ(first.what(), "first");
  EXPECT_STREQ(second.what(), "second");
  EXPECT_EQ(second.code, 2);
}

}  // namespace
