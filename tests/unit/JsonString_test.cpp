// Texts within JSON: escapes, surrogates, UTF-8, and how values are written.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <string_view>

#include "base/IException.h"
#include "base/Json.h"
#include "tests/machine/Allocation.h"
#include "tests/support/GroupedNumbers.h"

namespace {

using Tarvik::Json::Array;
using Tarvik::Json::Deserialize;
using Tarvik::Json::Object;
using Tarvik::Json::Serialize;
using Tarvik::Json::Value;

std::string Meaning(std::string const& characters) {
  return Deserialize('"' + characters + '"').ToString();
}

/// What is wrong with a JSON string of these bytes and where, counted from its opening mark.
std::string Fault(std::string const& characters, bool closed = true) {
  try {
    Deserialize('"' + characters + (closed ? "\"" : ""));
  } catch (Tarvik::IException const& e) {
    return std::string(e.what()).substr(6);
  }
  return "";
}

TEST(JsonString, EscapesStandForTheirCharacters) {
  struct {
    char const* characters;
    std::string meaning;
  } const table[] = {
      {R"(\")", "\""},
      {R"(\\)", "\\"},
      {R"(\/)", "/"},
      {R"(\b\f\n\r\t)", "\b\f\n\r\t"},
      {R"(\u0041)", "A"},
      {R"(\u0000)", std::string(1, '\0')},
      {R"(\u007f)", "\x7F"},
      {R"(\u0080)", "\xC2\x80"},
      {R"(\u07ff)", "\xDF\xBF"},
      {R"(\u0800)", "\xE0\xA0\x80"},
      {R"(\u20aC)", "\xE2\x82\xAC"},
      {R"(\uD7FF)", "\xED\x9F\xBF"},
      {R"(\uE000)", "\xEE\x80\x80"},
      {R"(\uFFFF)", "\xEF\xBF\xBF"},
      {R"(\uD800\uDC00)", "\xF0\x90\x80\x80"},
      {R"(\ud83d\ude00)", "\xF0\x9F\x98\x80"},
      {R"(\uDBFF\uDFFF)", "\xF4\x8F\xBF\xBF"},
      {R"(a\u00e4b\nc)",
       "a\xC3\xA4"
       "b\nc"},
      {R"(\\u0041)", "\\u0041"},
  };
  for (auto const& [characters, meaning] : table) EXPECT_EQ(Meaning(characters), meaning);
}

TEST(JsonString, KeysAreTextsToo) {
  EXPECT_TRUE(Deserialize(R"({"\u00e4\n":1})").ToObject().HasKey("\xC3\xA4\n"));
}

TEST(JsonString, BadEscapesAreRefused) {
  struct {
    char const* characters;
    char const* fault;
  } const table[] = {
      {R"(\x41)", "unknown escape at byte 2"},
      {R"(\a)", "unknown escape at byte 2"},
      {R"(\')", "unknown escape at byte 2"},
      {R"(\U0041)", "unknown escape at byte 2"},
      {R"(ab\v)", "unknown escape at byte 4"},
      {R"(\u)", "bad hexadecimal digits at byte 3"},
      {R"(\u004)", "bad hexadecimal digits at byte 3"},
      {R"(\u00g0)", "bad hexadecimal digits at byte 3"},
      {R"(\u+041)", "bad hexadecimal digits at byte 3"},
      {R"(\u-041)", "bad hexadecimal digits at byte 3"},
      {R"(\u0x41)", "bad hexadecimal digits at byte 3"},
      {R"(\u 041)", "bad hexadecimal digits at byte 3"},
  };
  for (auto const& [characters, fault] : table) EXPECT_EQ(Fault(characters), fault) << characters;
}

TEST(JsonString, NoOtherCharacterIsEscaped) {
  for (int code = 0; code < 0x100; ++code) {
    char const character = static_cast<char>(code);
    if (std::string_view("\"\\/bfnrtu").find(character) != std::string_view::npos) continue;
    EXPECT_EQ(Fault({'\\', character}), "unknown escape at byte 2") << code;
  }
}

TEST(JsonString, SurrogatesComeInPairsOnly) {
  struct {
    char const* characters;
    char const* fault;
  } const table[] = {
      {R"(\uD800)", "unpaired surrogate at byte 7"},
      {R"(\uDBFFx)", "unpaired surrogate at byte 7"},
      {R"(\uD800\n)", "unpaired surrogate at byte 8"},
      {R"(\uD800\u0041)", "unpaired surrogate at byte 13"},
      {R"(\uD800\uD800)", "unpaired surrogate at byte 13"},
      {R"(\uD800\uE000)", "unpaired surrogate at byte 13"},
      {R"(\uD800\uDBFF)", "unpaired surrogate at byte 13"},
      {R"(\uD800\u00)", "bad hexadecimal digits at byte 9"},
      {R"(\uDC00)", "unpaired surrogate at byte 7"},
      {R"(\uDFFF\uD800)", "unpaired surrogate at byte 7"},
      {R"(\uDC00\uDC00)", "unpaired surrogate at byte 7"},
  };
  for (auto const& [characters, fault] : table) EXPECT_EQ(Fault(characters), fault) << characters;
}

TEST(JsonString, AnUnfinishedTextIsRefusedAtItsEnd) {
  EXPECT_EQ(Fault("", false), "unfinished text or bad character in it at byte 1");
  EXPECT_EQ(Fault("abc", false), "unfinished text or bad character in it at byte 4");
  EXPECT_EQ(Fault("\\", false), "unknown escape at byte 2");
  EXPECT_EQ(Fault("\\\"", false), "unfinished text or bad character in it at byte 3");
  EXPECT_EQ(Fault("\\u12", false), "bad hexadecimal digits at byte 3");
}

TEST(JsonString, ControlCharactersMustBeEscaped) {
  for (int code = 0; code < 0x20; ++code) {
    EXPECT_EQ(Fault("a" + std::string(1, static_cast<char>(code))),
              "unfinished text or bad character in it at byte 2")
        << code;
  }
}

TEST(JsonString, BytesThatAreNotUtf8AreRefusedWhereTheCharacterBegins) {
  for (char const* bad : {
           "\x80",
           "\xBF",
           "\xC0\x80",
           "\xC1\xBF",
           "\xC2",
           "\xC2\x41",
           "\xC2\xC2",
           "\xE0\x80\x80",
           "\xE0\x9F\xBF",
           "\xE1\x80",
           "\xE1\x80\x41",
           "\xE1\x41\x80",
           "\xED\xA0\x80",
           "\xED\xBF\xBF",
           "\xF0\x80\x80\x80",
           "\xF0\x8F\xBF\xBF",
           "\xF1\x80\x80",
           "\xF1\x80\x41\x80",
           "\xF1\x80\x80\x41",
           "\xF4\x90\x80\x80",
           "\xF5\x80\x80\x80",
           "\xF8\x88\x80\x80\x80",
           "\xFE",
           "\xFF",
       }) {
    EXPECT_EQ(Fault(std::string("ok") + bad), "unfinished text or bad character in it at byte 3")
        << testing::PrintToString(bad);
  }
}

TEST(JsonString, ATextIsWrittenWithAsFewEscapesAsPossible) {
  struct {
    std::string text;
    char const* written;
  } const table[] = {
      {"", R"("")"},
      {"plain /", R"("plain /")"},
      {"\"\\", R"("\"\\")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string(1, '\0'), R"("\u0000")"},
      {"\x01\x1F", R"("\u0001\u001f")"},
      {"\x7F", "\"\x7F\""},
      {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\""},
  };
  for (auto const& [text, written] : table) {
    EXPECT_EQ(Serialize(Value(text)), written);
    EXPECT_EQ(Deserialize(Serialize(Value(text))).ToString(), text);
  }
}

TEST(JsonString, BytesThatAreNotUtf8AreWrittenAsReplacementCharacters) {
  EXPECT_EQ(Serialize(Value("a\xFF"
                            "b")),
            "\"a\xEF\xBF\xBD"
            "b\"");
  EXPECT_EQ(Serialize(Value("\xED\xA0\x80")),
            "\""
            "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"
            "\"");
  EXPECT_EQ(Serialize(Value("\xC3")), "\"\xEF\xBF\xBD\"");
  Object object;
  object["\x80"] = 1;
  EXPECT_EQ(Serialize(Value(object)), "{\"\xEF\xBF\xBD\":1}");
}

TEST(JsonString, KeysThatReplacementMakesEqualAreOneMemberTheLast) {
  Object object;
  object["\x80"] = 1;
  object["\x80 more"] = 2;
  object["\xEF\xBF\xBD"] = 3;
  object["\xFE more"] = 4;
  object["\xFF"] = 5;
  object["\xFF\xFF"] = 6;
  object["a"] = 7;
  std::string const written =
      "{\"a\":7,\"\xEF\xBF\xBD\":5,\"\xEF\xBF\xBD more\":4,\"\xEF\xBF\xBD\xEF\xBF\xBD\":6}";
  EXPECT_EQ(object.ToText(), written);
  EXPECT_EQ(Serialize(Value(object)), written);
  EXPECT_EQ(Serialize(Deserialize(written)), written);
  EXPECT_EQ(object.Size(), 7U) << "the object stays as it is";
}

TEST(JsonString, KeysThatReplacementMakesEqualAreOneMemberHoweverDeep) {
  Object inner;
  inner["\xC0"] = "lost";
  inner["\xC1"] = "kept";
  Array list;
  list.Add(inner);
  Object outer;
  outer["\xC3\xA4"] = list;
  EXPECT_EQ(outer.ToText(), "{\"\xC3\xA4\":[{\"\xEF\xBF\xBD\":\"kept\"}]}");
}

// Doubled work at each level would take longer than the universe has been there.
TEST(JsonString, KeysAreReplacedInLittleTimeHoweverDeep) {
  Value nested("end");
  for (int depth = 0; depth < 500; ++depth) {
    Object object;
    object["a"] = nested;
    object["\xFF"] = depth;
    nested = object;
  }
  EXPECT_EQ(Serialize(nested).substr(0, 10), "{\"a\":{\"a\":");
}

TEST(JsonString, ValuesAreWrittenOnOneLineWithoutBlanksKeysAscending) {
  Array list;
  list.Add(Value());
  list.Add(true);
  list.Add(false);
  list.Add(Array());
  Object object;
  object["zs"] = 29.8125;
  object["f"] = "30.4|B140";
  object["zf"] = 0;
  object["list"] = list;
  object["empty"] = Object();
  EXPECT_EQ(Serialize(Value(object)),
            R"({"empty":{},"f":"30.4|B140","list":[null,true,false,[]],"zf":0,"zs":29.8125})");
}

// The text's memory is all that it takes.
TEST(JsonString, ValuesAreWrittenWithoutACopyOfThem) {
  Object object;
  object["a key too long to be held in a string itself"] = "and so is its text, that takes memory";
  object["number"] = 29.8125;
  Machine::FailingAllocation const second(2);
  std::string const text = object.ToText();
  EXPECT_FALSE(Machine::FailingAllocation::Happened());
  EXPECT_EQ(text,
            R"({"a key too long to be held in a string itself":"and so is its text, that takes )"
            R"(memory","number":29.8125})");
}

TEST(JsonString, IntegersAreWrittenInDecimal) {
  EXPECT_EQ(Serialize(Value(0)), "0");
  EXPECT_EQ(Serialize(Value(std::numeric_limits<int>::min())), "-2147483648");
  EXPECT_EQ(Serialize(Value(std::numeric_limits<int>::max())), "2147483647");
}

TEST(JsonString, DoublesAreWrittenInTheShortestTextThatReadsBackTheSame) {
  struct {
    double number;
    char const* written;
  } const table[] = {
      {0.0, "0.0"},           {-0.0, "-0.0"},
      {1.0, "1.0"},           {0.1, "0.1"},
      {29.8125, "29.8125"},   {1.0 / 3, "0.3333333333333333"},
      {1e22, "1e+22"},        {1e-7, "1e-07"},
      {5e-324, "5e-324"},     {100000.0, "1e+05"},
      {123456.0, "123456.0"}, {1.7976931348623157e308, "1.7976931348623157e+308"},
  };
  for (auto const& [number, written] : table) {
    EXPECT_EQ(Serialize(Value(number)), written);
    Value const back = Deserialize(written);
    EXPECT_TRUE(back.IsDouble()) << written;
    EXPECT_EQ(static_cast<double>(back), number) << written;
    EXPECT_EQ(std::signbit(static_cast<double>(back)), std::signbit(number)) << written;
  }
}

TEST(JsonString, NumbersThatAreNotFiniteAreWrittenAsNull) {
  double const infinity = std::numeric_limits<double>::infinity();
  for (double const number : {infinity, -infinity, std::nan("")}) {
    EXPECT_EQ(Serialize(Value(number)), "null");
  }
}

TEST(JsonString, TheLocaleOfTheApplicationChangesNothing) {
  GroupedNumbers const locale;
  EXPECT_EQ(Serialize(Value(1234567)), "1234567");
  EXPECT_EQ(Serialize(Value(1234.5)), "1234.5");
  EXPECT_EQ(static_cast<double>(Deserialize("1234.5")), 1234.5);
  EXPECT_EQ(static_cast<double>(Deserialize("1234.5e-999")), 0.0);
  EXPECT_EQ(static_cast<double>(Deserialize("4.5e-324")), 5e-324);
}

}  // namespace
