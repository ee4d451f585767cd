// JSON values, objects and arrays.
#include "base/Json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Refusal.h"

namespace {

using Tarvik::Json::Array;
using Tarvik::Json::Deserialize;
using Tarvik::Json::Object;
using Tarvik::Json::Value;

constexpr int kMin = std::numeric_limits<int>::min();
constexpr int kMax = std::numeric_limits<int>::max();

/// The kinds a value claims to have, a letter each.
std::string Kinds(Value const& value) {
  std::string kinds;
  if (value.IsNull()) kinds += 'n';
  if (value.IsBool()) kinds += 'b';
  if (value.IsInt()) kinds += 'i';
  if (value.IsDouble()) kinds += 'd';
  if (value.IsString()) kinds += 's';
  if (value.IsObject()) kinds += 'o';
  if (value.IsArray()) kinds += 'a';
  return kinds;
}

TEST(JsonValue, IsOfExactlyOneKind) {
  EXPECT_EQ(Kinds(Value()), "n");
  EXPECT_EQ(Kinds(Value(true)), "b");
  EXPECT_EQ(Kinds(Value(7)), "i");
  EXPECT_EQ(Kinds(Value(7.0)), "d");
  EXPECT_EQ(Kinds(Value("text")), "s");
  EXPECT_EQ(Kinds(Value(std::string("text"))), "s");
  EXPECT_EQ(Kinds(Value(Object())), "o");
  EXPECT_EQ(Kinds(Value(Array())), "a");
}

TEST(JsonValue, OfANullTextIsNull) {
  char const* const nothing = nullptr;
  EXPECT_EQ(Kinds(Value(nothing)), "n");
}

TEST(JsonValue, GivesBackWhatItHolds) {
  EXPECT_TRUE(Value(true).ToBool());
  EXPECT_FALSE(Value(false).ToBool());
  EXPECT_EQ(static_cast<int>(Value(-42)), -42);
  EXPECT_EQ(static_cast<double>(Value(29.8125)), 29.8125);
  EXPECT_EQ(Value("text").ToString(), "text");
  EXPECT_EQ(Value(std::string("a\0b", 3)).ToString(), std::string("a\0b", 3));
  EXPECT_EQ(Value(Object()).ToObject().Size(), 0U);
  EXPECT_EQ(Value(Array()).ToArray().Size(), 0U);
}

TEST(JsonValue, OfAnIntegerIsAlsoADouble) {
  EXPECT_EQ(static_cast<double>(Value(kMin)), static_cast<double>(kMin));
  EXPECT_EQ(static_cast<double>(Value(3)), 3.0);
}

TEST(JsonValue, OfADoubleIsAnIntegerWithoutItsFraction) {
  EXPECT_EQ(static_cast<int>(Value(2.999)), 2);
  EXPECT_EQ(static_cast<int>(Value(-2.999)), -2);
  EXPECT_EQ(static_cast<int>(Value(-0.5)), 0);
  EXPECT_EQ(static_cast<int>(Value(kMax + 0.75)), kMax);
  EXPECT_EQ(static_cast<int>(Value(kMin - 0.75)), kMin);
}

TEST(JsonValue, OfADoubleOutsideTheRangeIsNoInteger) {
  double const infinity = std::numeric_limits<double>::infinity();
  for (double const number : {kMax + 1.0, kMin - 1.0, 1e300, -1e300, infinity, -infinity,
                              std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(Refusal([number] { static_cast<void>(static_cast<int>(Value(number))); }),
              "JSON number does not fit an integer")
        << number;
  }
}

TEST(JsonValue, RefusesToBeOfAnotherKind) {
  std::vector<std::pair<char, Value>> const values{
      {'n', Value()},       {'b', Value(true)},     {'i', Value(1)},      {'d', Value(1.5)},
      {'s', Value("text")}, {'o', Value(Object())}, {'a', Value(Array())}};
  struct {
    std::string kinds;
    std::string refusal;
    void (*ask)(Value const&);
  } const questions[] = {
      {"b", "JSON value is not a bool", [](Value const& v) { static_cast<void>(v.ToBool()); }},
      {"id", "JSON value is not a number",
       [](Value const& v) { static_cast<void>(static_cast<int>(v)); }},
      {"id", "JSON value is not a number",
       [](Value const& v) { static_cast<void>(static_cast<double>(v)); }},
      {"s", "JSON value is not a text", [](Value const& v) { static_cast<void>(v.ToString()); }},
      {"o", "JSON value is not an object", [](Value const& v) { static_cast<void>(v.ToObject()); }},
      {"a", "JSON value is not an array", [](Value const& v) { static_cast<void>(v.ToArray()); }},
  };
  for (auto const& [kinds, refusal, ask] : questions) {
    for (auto const& [kind, value] : values) {
      bool const fits = kinds.find(kind) != std::string::npos;
      EXPECT_EQ(Refusal([&asked = ask, &of = value] { asked(of); }), fits ? "" : refusal) << kind;
    }
  }
}

TEST(JsonValue, CopiesAreIndependent) {
  Value first("text");
  Value const second(first);
  first = Value(7);
  EXPECT_EQ(second.ToString(), "text");
  EXPECT_EQ(static_cast<int>(first), 7);
}

TEST(JsonValue, MayBeAssignedItself) {
  Value value("text");
  Value const& same = value;
  value = same;
  EXPECT_EQ(value.ToString(), "text");
}

TEST(JsonValue, MovesWhatItHolds) {
  Value first(std::string(1000, 'x'));
  Value second(std::move(first));
  EXPECT_EQ(second.ToString().size(), 1000U);
  Value third;
  third = std::move(second);
  EXPECT_EQ(third.ToString().size(), 1000U);
}

TEST(JsonValue, IsNullOnceItWasMovedFrom) {
  for (Value const& held :
       {Value(true), Value(1), Value("text"), Value(Object()), Value(Array())}) {
    Value first(held);
    Value second(std::move(first));
    Value third;
    third = std::move(second);
    EXPECT_EQ(Kinds(first) + Kinds(second), "nn");
    EXPECT_EQ(Serialize(first), "null");
    EXPECT_TRUE(third == held);
  }
}

TEST(JsonValue, MayBeMovedToItself) {
  Value value("text");
  Value& same = value;
  value = std::move(same);
  EXPECT_EQ(value.ToString(), "text");
}

TEST(JsonValue, KeepsAnObjectAsItWas) {
  Object object;
  object["key"] = 1;
  Value const value(object);
  object["key"] = 2;
  Object held = value.ToObject();
  EXPECT_EQ(static_cast<int>(held["key"]), 1);
  held["key"] = 3;
  EXPECT_EQ(static_cast<int>(value.ToObject()["key"]), 1);
}

TEST(JsonValue, IsWrittenToAStreamAsItsText) {
  Object object;
  object["key"] = 1;
  std::ostringstream stream;
  stream << object["key"] << ' ' << Value("text") << ' ' << object << ' ' << Array();
  EXPECT_EQ(stream.str(), R"(1 "text" {"key":1} [])");
}

// A test framework that finds no other way prints a value by converting it to a number.
TEST(JsonValue, OfAnyKindIsPrintedByAFailedExpectation) {
  EXPECT_EQ(testing::PrintToString(Value("text")), "\"text\"");
  EXPECT_EQ(testing::PrintToString(Value()), "null");
}

TEST(JsonObject, MakesAMissingMemberAsNull) {
  Object object;
  EXPECT_FALSE(object.HasKey("key"));
  EXPECT_TRUE(object["key"].IsNull());
  EXPECT_TRUE(object.HasKey("key"));
  EXPECT_EQ(object.Size(), 1U);
}

TEST(JsonObject, FindsTheSameMemberByBothKindsOfKey) {
  Object object;
  object["key"] = 5;
  EXPECT_EQ(static_cast<int>(object[std::string("key")]), 5);
  object[std::string("key")] = "text";
  EXPECT_EQ(object["key"].ToString(), "text");
  EXPECT_EQ(object.Size(), 1U);
}

TEST(JsonObject, MatchesKeysExactly) {
  Object object;
  object["sdcard-status-conter"] = 1;
  object[""] = 2;
  object[std::string("a\0b", 3)] = 3;
  EXPECT_FALSE(object.HasKey("sdcard-status-counter"));
  EXPECT_FALSE(object.HasKey("SDCARD-STATUS-CONTER"));
  EXPECT_FALSE(object.HasKey("a"));
  EXPECT_TRUE(object.HasKey(""));
  EXPECT_TRUE(object.HasKey(std::string("a\0b", 3)));
}

TEST(JsonObject, RefusesANullKey) {
  Object object;
  char const* const nothing = nullptr;
  EXPECT_EQ(Refusal([&] { object[nothing] = 1; }), "JSON key is null");
  EXPECT_EQ(object.Size(), 0U);
}

TEST(JsonObject, ListsItsMembersInTheOrderOfTheirBytes) {
  Object object;
  for (char const* key : {"zs", "f", "\xC3\xA4", "Z", "zf", "z"}) object[key] = 0;
  std::vector<std::string> keys;
  for (auto const& [key, value] : object) keys.push_back(key);
  EXPECT_THAT(keys, testing::ElementsAre("Z", "f", "z", "zf", "zs", "\xC3\xA4"));
}

TEST(JsonObject, KeepsReferencesToItsMembers) {
  Object object;
  Value& first = object["m"];
  for (char key = 'a'; key <= 'z'; ++key) object[std::string(1, key)] = key - 'a';
  first = 99;
  EXPECT_EQ(static_cast<int>(object["m"]), 99);
}

TEST(JsonObject, CopiesAndMovesItsMembers) {
  Object first;
  first["key"] = "text";
  Object second(first);
  first["key"] = 1;
  EXPECT_EQ(second["key"].ToString(), "text");
  second = first;
  EXPECT_EQ(static_cast<int>(second["key"]), 1);
  Object third(std::move(second));
  EXPECT_EQ(third.Size(), 1U);
  Object fourth;
  fourth = std::move(third);
  EXPECT_EQ(fourth.Size(), 1U);
}

TEST(JsonArray, KeepsItsElementsInOrder) {
  Array array;
  array.Add(1);
  array.Add("two");
  array.Add(3.0);
  EXPECT_EQ(array.Size(), 3U);
  EXPECT_EQ(static_cast<int>(array[0]), 1);
  EXPECT_EQ(array[1].ToString(), "two");
  std::string kinds;
  for (Value const& element : array) kinds += Kinds(element);
  EXPECT_EQ(kinds, "isd");
}

TEST(JsonArray, HasNoElementBeyondItsEnd) {
  Array array;
  EXPECT_EQ(Refusal([&] { static_cast<void>(array[0]); }), "JSON array has no such element");
  array.Add(1);
  EXPECT_EQ(Refusal([&] { static_cast<void>(array[1]); }), "JSON array has no such element");
}

TEST(JsonArray, CopiesAndMovesItsElements) {
  Array first;
  first.Add(1);
  Array second(first);
  first.Add(2);
  EXPECT_EQ(second.Size(), 1U);
  second = first;
  EXPECT_EQ(second.Size(), 2U);
  Array third(std::move(second));
  Array fourth;
  fourth = std::move(third);
  EXPECT_EQ(fourth.Size(), 2U);
}

TEST(JsonArray, MayHoldItself) {
  Array array;
  array.Add(1);
  array.Add(array);
  EXPECT_EQ(array.Size(), 2U);
  EXPECT_EQ(array[1].ToArray().Size(), 1U);
}

TEST(JsonTruth, IsATruthAndNothingElse) {
  for (bool const truth : {true, false}) {
    bool const converted = Value(truth);
    EXPECT_EQ(converted, truth);
    EXPECT_EQ(static_cast<bool>(Value(truth)), truth);
  }
  EXPECT_TRUE(Value(true) == true && false == Value(false) && Value(true) != false);
  for (Value const& value : {Value(), Value(1), Value(1.0), Value("true"), Value(Array())}) {
    EXPECT_EQ(Refusal([&] { static_cast<void>(static_cast<bool>(value)); }),
              "JSON value is not a bool");
    EXPECT_FALSE(value == true || value == false);
  }
}

TEST(JsonEquality, OfTextsOfEveryType) {
  Value const value("text");
  char letters[] = "text";
  char const* const pointer = letters;
  EXPECT_TRUE(value == "text" && value == letters && value == pointer);
  EXPECT_TRUE(value == std::string("text") && std::string("text") == value);
  EXPECT_TRUE(value != "tex" && value != "texts" && "Text" != value && value != "");
  EXPECT_TRUE(Value(std::string("a\0b", 3)) != "a");
  EXPECT_TRUE(Value(std::string("a\0b", 3)) == std::string("a\0b", 3));
  for (Value const& other : {Value(), Value(1), Value(true), Value(Object()), Value(Array())}) {
    EXPECT_FALSE(other == "1" || other == "true" || other == "");
  }
}

TEST(JsonEquality, OfANullTextAndNull) {
  char const* const nothing = nullptr;
  EXPECT_TRUE(Value() == nothing && Value() == nullptr && Value("") != nothing);
}

TEST(JsonEquality, OfValuesThatHoldTheSame) {
  std::vector<Value> const values{Value(),    Value(true),     Value(false),
                                  Value(1),   Value(1.5),      Value(""),
                                  Value("1"), Value(Object()), Value(Array())};
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t k = 0; k < values.size(); ++k) {
      EXPECT_EQ(values[i] == values[k], i == k) << i << " and " << k;
    }
  }
}

TEST(JsonEquality, OfNumbersOfBothKinds) {
  EXPECT_TRUE(Value(3) == Value(3.0) && Value(3.0) == Value(3));
  EXPECT_TRUE(Value(3) != Value(3.5) && Value(0) == Value(-0.0));
  double const notANumber = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(Value(notANumber) != Value(notANumber));
}

TEST(JsonEquality, OfAllThatIsHeld) {
  std::string const text = R"({"a":[1,{"b":null}],"c":"d"})";
  Value const value = Deserialize(text);
  EXPECT_TRUE(value == Deserialize(text));
  EXPECT_TRUE(value == Deserialize(text).ToObject() && Deserialize(text).ToObject() == value);
  for (char const* const other :
       {R"({"a":[1,{"b":0}],"c":"d"})", R"({"a":[1,{"b":null}],"c":"e"})",
        R"({"a":[1,{"b":null}],"C":"d"})", R"({"a":[1,{"b":null}]})", R"({"a":[1],"c":"d"})",
        R"({"a":[{"b":null},1],"c":"d"})", "{}", R"([1,{"b":null}])"}) {
    EXPECT_TRUE(value != Deserialize(other)) << other;
  }
  EXPECT_TRUE(Deserialize("[1,2.0]") == Deserialize("[1.0,2]"));
  EXPECT_TRUE(Deserialize("[1,2]") != Deserialize("[2,1]"));
  EXPECT_TRUE(Deserialize("[1,2]") == Deserialize("[1,2]").ToArray());
}

}  // namespace
