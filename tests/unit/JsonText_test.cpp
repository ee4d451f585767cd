// Which texts are JSON, what they mean, and where one that is none goes wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "base/IException.h"
#include "base/Json.h"

namespace {

using Tarvik::IException;
using Tarvik::Json::Deserialize;
using Tarvik::Json::Serialize;
using Tarvik::Json::Value;

/// What the refusal of `text` says after "JSON: "; empty when the text is taken.
std::string Fault(std::string const& text) {
  try {
    Deserialize(text);
  } catch (IException const& e) {
    EXPECT_EQ(e.code, 0);
    EXPECT_TRUE(std::string(e.what()).starts_with("JSON: ")) << e.what();
    return std::string(e.what()).substr(6);
  }
  return "";
}

std::string Repeat(std::string const& piece, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += piece;
  return text;
}

/// The text that a JSON string with these bytes between its quotation marks means.
std::string Meaning(std::string const& characters) {
  return Deserialize('"' + characters + '"').ToString();
}

TEST(JsonText, AllThatIsJsonIsTakenAndMeansTheSameInShort) {
  struct {
    char const* text;
    char const* inShort;
  } const table[] = {
      {"null", "null"},
      {"true", "true"},
      {"false", "false"},
      {"0", "0"},
      {"-0", "0"},
      {"-7", "-7"},
      {"\"\"", "\"\""},
      {"{}", "{}"},
      {"[]", "[]"},
      {" \t\r\n[ \t\r\n] \t\r\n", "[]"},
      {"\n{\r}\t", "{}"},
      {"[1,2,3]", "[1,2,3]"},
      {" [ 1 , [ ] , { } ] ", "[1,[],{}]"},
      {"{\"b\":1,\"a\":2}", "{\"a\":2,\"b\":1}"},
      {"{ \"a\" : { \"b\" : [ null , true ] } }", "{\"a\":{\"b\":[null,true]}}"},
      {"{ \"a\" : 1 , \"b\" : 2 }", "{\"a\":1,\"b\":2}"},
      {"{\"a\":1,\"a\":2}", "{\"a\":2}"},
      {"{\"\":0}", "{\"\":0}"},
      {"{\n  \"sdcard-status-conter\": 2\n}\n", "{\"sdcard-status-conter\":2}"},
      {"\"text\"", "\"text\""},
  };
  for (auto const& [text, inShort] : table) EXPECT_EQ(Serialize(Deserialize(text)), inShort);
}

TEST(JsonText, WhatIsNotJsonIsRefusedWithThePlaceOfItsFirstFault) {
  struct {
    char const* text;
    char const* fault;
  } const table[] = {
      {"", "missing value at byte 0"},
      {"  ", "missing value at byte 2"},
      {"nul", "unexpected text at byte 0"},
      {"[nulL]", "unexpected text at byte 1"},
      {"tru", "unexpected text at byte 0"},
      {"False", "missing value at byte 0"},
      {"fals", "unexpected text at byte 0"},
      {"nullx", "unexpected text after the value at byte 4"},
      {"1 2", "unexpected text after the value at byte 2"},
      {"{} x", "unexpected text after the value at byte 3"},
      {"[]]", "unexpected text after the value at byte 2"},
      {"'a'", "missing value at byte 0"},
      {"NaN", "missing value at byte 0"},
      {"Infinity", "missing value at byte 0"},
      {"-Infinity", "missing digit at byte 1"},
      {"// remark\n1", "missing value at byte 0"},
      {"\xEF\xBB\xBF{}", "missing value at byte 0"},
      {"\xC2\xA0{}", "missing value at byte 0"},
      {"\v1", "missing value at byte 0"},
      {"[", "missing value at byte 1"},
      {"[1", "missing comma or closing bracket at byte 2"},
      {"[1,", "missing value at byte 3"},
      {"[1,]", "missing value at byte 3"},
      {"[,1]", "missing value at byte 1"},
      {"[1 2]", "missing comma or closing bracket at byte 3"},
      {"[1}", "missing comma or closing bracket at byte 2"},
      {"]", "missing value at byte 0"},
      {"{", "missing quotation mark at byte 1"},
      {"{1:2}", "missing quotation mark at byte 1"},
      {"{a:1}", "missing quotation mark at byte 1"},
      {"{\"a\"}", "missing colon at byte 4"},
      {"{\"a\" 1}", "missing colon at byte 5"},
      {"{\"a\":}", "missing value at byte 5"},
      {"{\"a\":1", "missing comma or closing brace at byte 6"},
      {"{\"a\":1,}", "missing quotation mark at byte 7"},
      {"{\"a\":1]", "missing comma or closing brace at byte 6"},
      {"{,}", "missing quotation mark at byte 1"},
      {":", "missing value at byte 0"},
  };
  for (auto const& [text, fault] : table) EXPECT_EQ(Fault(text), fault) << text;
}

TEST(JsonText, ANulIsNoEndOfTheText) {
  EXPECT_EQ(Fault(std::string("\0", 1)), "missing value at byte 0");
  EXPECT_EQ(Fault(std::string("1\0", 2)), "unexpected text after the value at byte 1");
  EXPECT_EQ(Fault(std::string("[1\0]", 4)), "missing comma or closing bracket at byte 2");
  EXPECT_EQ(Fault(std::string("\"a\0b\"", 5)), "unfinished text or bad character in it at byte 2");
  EXPECT_EQ(Fault(std::string("\"\\\0\"", 4)), "unknown escape at byte 2");
}

TEST(JsonText, WholeNumbersThatFitAnIntAreIntegers) {
  for (char const* text : {"0", "-0", "7", "-7", "2147483647", "-2147483648"}) {
    EXPECT_TRUE(Deserialize(text).IsInt()) << text;
  }
  EXPECT_EQ(static_cast<int>(Deserialize("2147483647")), std::numeric_limits<int>::max());
  EXPECT_EQ(static_cast<int>(Deserialize("-2147483648")), std::numeric_limits<int>::min());
}

TEST(JsonText, EveryOtherNumberIsTheNearestDouble) {
  struct {
    std::string text;
    double number;
  } const table[] = {
      {"2147483648", 2147483648.0},
      {"-2147483649", -2147483649.0},
      {"1.0", 1.0},
      {"0.1", 0.1},
      {"-0.0", -0.0},
      {"1e0", 1.0},
      {"1E+2", 100.0},
      {"25e-1", 2.5},
      {"29.8125", 29.8125},
      {"1.7976931348623157e308", std::numeric_limits<double>::max()},
      {"5e-324", std::numeric_limits<double>::denorm_min()},
      {"2.2250738585072011e-308", 2.2250738585072011e-308},
      {"9007199254740993", 9007199254740992.0},
      {"0e999999999", 0.0},
      {"1e-999", 0.0},
      {"-1e-999", -0.0},
      {"1e00000000000000000000002", 100.0},
      {"0." + Repeat("0", 400) + "1e401", 1.0},
      {"1" + Repeat("0", 400) + "e-400", 1.0},
  };
  for (auto const& [text, number] : table) {
    Value const value = Deserialize(text);
    EXPECT_TRUE(value.IsDouble()) << text;
    EXPECT_EQ(static_cast<double>(value), number) << text;
    EXPECT_EQ(std::signbit(static_cast<double>(value)), std::signbit(number)) << text;
  }
}

TEST(JsonText, NumbersBeyondTheRangeOfDoublesAreInfinite) {
  double const infinity = std::numeric_limits<double>::infinity();
  for (auto const& text :
       {std::string("1e309"), std::string("1e999999999"), "1" + Repeat("0", 400)}) {
    EXPECT_EQ(static_cast<double>(Deserialize(text)), infinity) << text;
    EXPECT_EQ(static_cast<double>(Deserialize("-" + text)), -infinity) << text;
  }
}

TEST(JsonText, WhatIsNoNumberIsRefused) {
  struct {
    char const* text;
    char const* fault;
  } const table[] = {
      {"-", "missing digit at byte 1"},
      {"+1", "missing value at byte 0"},
      {"--1", "missing digit at byte 1"},
      {".5", "missing value at byte 0"},
      {"-.5", "missing digit at byte 1"},
      {"1.", "missing digit at byte 2"},
      {"1.e5", "missing digit at byte 2"},
      {"1e", "missing digit at byte 2"},
      {"1e+", "missing digit at byte 3"},
      {"1e-", "missing digit at byte 3"},
      {"1e+-1", "missing digit at byte 3"},
      {"1e1.5", "unexpected text after the value at byte 3"},
      {"1.2.3", "unexpected text after the value at byte 3"},
      {"01", "unexpected text after the value at byte 1"},
      {"-01", "unexpected text after the value at byte 2"},
      {"00", "unexpected text after the value at byte 1"},
      {"0x10", "unexpected text after the value at byte 1"},
      {"1_000", "unexpected text after the value at byte 1"},
      {"1,5", "unexpected text after the value at byte 1"},
      {"-x", "missing digit at byte 1"},
      {"1f", "unexpected text after the value at byte 1"},
      {"1 e5", "unexpected text after the value at byte 2"},
  };
  for (auto const& [text, fault] : table) EXPECT_EQ(Fault(text), fault) << text;
}

TEST(JsonText, NestingEndsAt512) {
  for (auto const& [open, close] : {std::pair("[", "]"), std::pair("{\"a\":", "}")}) {
    std::string const core = std::string(open) == "[" ? "" : "0";
    EXPECT_EQ(Fault(Repeat(open, 512) + core + Repeat(close, 512)), "") << open;
  }
  EXPECT_EQ(Fault(Repeat("[", 513) + Repeat("]", 513)), "nested too deep at byte 512");
  EXPECT_EQ(Fault(Repeat("{\"a\":", 512) + "{}"), "nested too deep at byte 2560");
  EXPECT_EQ(Fault(Repeat("[", 100'000)), "nested too deep at byte 512");
}

TEST(JsonText, WhatIsSideBySideIsNotNested) {
  EXPECT_EQ(Fault("[" + Repeat("[],{},", 10'000) + "0]"), "");
}

TEST(JsonText, TheDeepestTextComesBackTheSame) {
  std::string const deepest = Repeat("[", 511) + "{}" + Repeat("]", 511);
  EXPECT_EQ(Serialize(Deserialize(deepest)), deepest);
}

TEST(JsonText, AValueMayBeReadByManyThreads) {
  Value const value = Deserialize("{\"a\":[1,2,{\"b\":\"text\"}]}");
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&value] {
      for (int round = 0; round < 100; ++round) {
        Value const copy = value;
        EXPECT_EQ(Serialize(copy), "{\"a\":[1,2,{\"b\":\"text\"}]}");
      }
    });
  }
  for (auto& reader : readers) reader.join();
}

TEST(JsonText, PlainCharactersMeanThemselves) {
  for (char const* text :
       {"", "a", "/", "'", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
        "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
        "Gr\xC3\xBC\xC3\x9F"
        "e \xF0\x9F\x98\x80"}) {
    EXPECT_EQ(Meaning(text), text);
  }
}

}  // namespace
