// JSON values as applications use them in the place of numbers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Json.h"
#include "tests/support/Refusal.h"

namespace {

using Tarvik::Json::Array;
using Tarvik::Json::Deserialize;
using Tarvik::Json::Number;
using Tarvik::Json::Object;
using Tarvik::Json::Value;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kTwoTo53 = 9007199254740992.0;
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

/// What becomes of a value in a variable of that type.
template <typename Type>
Type In(Value const& value) {
  Type variable = value;
  Type const cast = static_cast<Type>(value);
  EXPECT_TRUE(variable == cast || variable != variable);
  return variable;
}

template <typename Type>
std::string RefusalIn(Value const& value) {
  return Refusal([&] { static_cast<void>(In<Type>(value)); });
}

/// One of each kind that is no number.
std::vector<Value> OtherKinds() {
  return {Value(), Value(true), Value("1"), Value(Object()), Value(Array())};
}

Object HealthSummary() {
  return Deserialize(R"({"zr":0,"zf":12,"zs":29.8125,"zl":0.5,"zi":"cid","ok":true})").ToObject();
}

TEST(JsonNumber, IsWrittenAsApplicationsWriteIt) {
  Object status = HealthSummary();
  EXPECT_TRUE(status["zr"] == 0);
  EXPECT_TRUE(0 == status["zr"]);
  EXPECT_FALSE(status["zr"] != 0);
  EXPECT_TRUE(status["zf"] > 0);
  EXPECT_TRUE(0 < status["zf"]);
  EXPECT_TRUE(status["zf"] >= 12U);
  EXPECT_TRUE(status["zf"] <= 12L);
  EXPECT_TRUE(status["zs"] < 30);
  EXPECT_TRUE(30 > status["zs"]);
  EXPECT_TRUE(status["zs"] == 29.8125);
  EXPECT_TRUE(status["zl"] == 0.5F);
  EXPECT_TRUE(status["zl"] != 1.5);
  EXPECT_TRUE(status["zi"] == "cid");
  EXPECT_TRUE(std::string("cid") == status["zi"]);
  EXPECT_TRUE(status["zi"] != "");
  EXPECT_TRUE(status["ok"] == true);
  EXPECT_TRUE(status["ok"]);
  if (!status["ok"]) ADD_FAILURE();
  EXPECT_TRUE(status["zr"] != status["zf"]);
  EXPECT_FALSE(status["missing"] == 0);
  int const check = status["zf"];
  long const seconds = status["zf"];
  unsigned const count = status["zf"];
  std::uint8_t const byte = status["zf"];
  std::int64_t const bytes = status["zf"];
  std::size_t const size = status["zf"];
  EXPECT_EQ(check + seconds + bytes, 36);
  EXPECT_EQ(count + byte + size, 36U);
  float const gigabytes = status["zs"];
  double const exact = status["zs"];
  bool const truth = status["ok"];
  EXPECT_EQ(gigabytes, 29.8125F);
  EXPECT_EQ(exact, 29.8125);
  EXPECT_TRUE(truth);
  switch (int{status["zr"]}) {
    case 0:
      break;
    default:
      ADD_FAILURE();
  }
  EXPECT_EQ(std::vector<int>({7, 8}).at(status["zr"]), 7);
}

template <typename Type>
class JsonNumberIn : public testing::Test {};

template <typename Type>
class JsonNumberInAnInteger : public testing::Test {};

using Integers = testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned,
                                long, unsigned long, long long, unsigned long long>;
using Numbers =
    testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned, long,
                   unsigned long, long long, unsigned long long, float, double, long double>;
TYPED_TEST_SUITE(JsonNumberIn, Numbers);
TYPED_TEST_SUITE(JsonNumberInAnInteger, Integers);

TYPED_TEST(JsonNumberIn, EveryTypeIsTheSame) {
  static_assert(Number<TypeParam>);
  static_assert(std::convertible_to<Value, TypeParam>);
  for (Value const& value : {Value(42), Value(42.0)}) {
    EXPECT_EQ(In<TypeParam>(value), TypeParam{42});
    EXPECT_TRUE(value == TypeParam{42} && TypeParam{42} == value);
    EXPECT_TRUE(value != TypeParam{41} && TypeParam{43} != value);
    EXPECT_TRUE(value > TypeParam{41} && value < TypeParam{43});
    EXPECT_TRUE(TypeParam{41} < value && TypeParam{43} > value);
    EXPECT_TRUE(value <= TypeParam{42} && value >= TypeParam{42});
    EXPECT_FALSE(value < TypeParam{42} || value > TypeParam{42});
    EXPECT_TRUE((value <=> TypeParam{42}) == std::partial_ordering::equivalent);
    EXPECT_TRUE((TypeParam{41} <=> value) == std::partial_ordering::less);
  }
}

TYPED_TEST(JsonNumberIn, AnotherKindIsNotConvertedAndEqualsNone) {
  for (Value const& value : OtherKinds()) {
    EXPECT_EQ(RefusalIn<TypeParam>(value), "JSON value is not a number");
    EXPECT_FALSE(value == TypeParam{1} || value == TypeParam{0});
    EXPECT_TRUE(TypeParam{1} != value);
    EXPECT_EQ(Refusal([&] { static_cast<void>(value < TypeParam{1}); }),
              "JSON value is not a number");
    EXPECT_EQ(Refusal([&] { static_cast<void>(TypeParam{1} >= value); }),
              "JSON value is not a number");
  }
}

TYPED_TEST(JsonNumberInAnInteger, TheLimitsOfTheTypeAreTheLimits) {
  using Limits = std::numeric_limits<TypeParam>;
  constexpr bool kIsDouble = Limits::digits <= std::numeric_limits<double>::digits;
  auto const end = std::ldexp(1.0, Limits::digits);
  auto const lowest = static_cast<double>(Limits::min());
  EXPECT_EQ(In<TypeParam>(Value(lowest)), Limits::min());
  EXPECT_EQ(RefusalIn<TypeParam>(Value(end)), "JSON number does not fit an integer");
  double const below = std::nextafter(lowest - 1.0, -kInfinity);
  EXPECT_EQ(RefusalIn<TypeParam>(Value(below)), "JSON number does not fit an integer");
  auto const last = kIsDouble ? end - 1.0 : std::nextafter(end, 0.0);
  EXPECT_EQ(static_cast<double>(In<TypeParam>(Value(last))), last);
  if (kIsDouble) {
    EXPECT_EQ(In<TypeParam>(Value(last + 0.75)), Limits::max());
    EXPECT_EQ(In<TypeParam>(Value(lowest - 0.75)), Limits::min());
    EXPECT_EQ(RefusalIn<TypeParam>(Value(lowest - 1.0)), "JSON number does not fit an integer");
  }
}

TYPED_TEST(JsonNumberInAnInteger, TheFractionIsDroppedTowardZero) {
  EXPECT_EQ(In<TypeParam>(Value(2.999)), TypeParam{2});
  EXPECT_EQ(In<TypeParam>(Value(0.5)), TypeParam{0});
  EXPECT_EQ(In<TypeParam>(Value(-0.999)), TypeParam{0});
  EXPECT_EQ(In<TypeParam>(Value(-0.0)), TypeParam{0});
  if constexpr (std::signed_integral<TypeParam>) {
    EXPECT_EQ(In<TypeParam>(Value(-2.999)), TypeParam{-2});
  }
}

TYPED_TEST(JsonNumberInAnInteger, WhatIsNegativeHugeOrNoNumberDoesNotFit) {
  for (double const number : {1e300, -1e300, kTwoTo64, kInfinity, -kInfinity, kNan, DBL_MAX}) {
    EXPECT_EQ(RefusalIn<TypeParam>(Value(number)), "JSON number does not fit an integer");
  }
  if constexpr (std::unsigned_integral<TypeParam>) {
    for (Value const& value : {Value(-1), Value(-1.0), Value(std::numeric_limits<int>::min())}) {
      EXPECT_EQ(RefusalIn<TypeParam>(value), "JSON number does not fit an integer");
    }
  }
}

TYPED_TEST(JsonNumberInAnInteger, ComparesWithFractionsAndNumbersOutsideTheType) {
  using Limits = std::numeric_limits<TypeParam>;
  EXPECT_TRUE(Value(41.5) < TypeParam{42} && Value(42.5) > TypeParam{42});
  EXPECT_TRUE(Value(-0.5) < TypeParam{0} && Value(0.5) > TypeParam{0});
  EXPECT_TRUE(Value(-0.0) == TypeParam{0});
  EXPECT_FALSE(Value(42.5) == TypeParam{42} || Value(-0.5) == TypeParam{0});
  EXPECT_TRUE(Value(1e300) > Limits::max() && Value(kInfinity) > Limits::max());
  EXPECT_TRUE(Value(-1e300) < Limits::min() && Value(-kInfinity) < Limits::min());
  EXPECT_TRUE(Limits::max() < Value(kTwoTo64));
  if constexpr (std::unsigned_integral<TypeParam>) {
    EXPECT_TRUE(Value(-1) < TypeParam{0});
    EXPECT_FALSE(Value(-1) == Limits::max());
  }
}

TYPED_TEST(JsonNumberIn, NothingComparesWithWhatIsNoNumber) {
  Value const none(kNan);
  TypeParam const one{1};
  EXPECT_TRUE((none <=> one) == std::partial_ordering::unordered);
  EXPECT_FALSE(none == one || none < one || none > one || none <= one || none >= one);
  EXPECT_TRUE(none != one);
  EXPECT_FALSE(one < none || one > none);
}

TYPED_TEST(JsonNumberInAnInteger, IsStoredAsAnIntegerIfItFitsAnInt) {
  using Limits = std::numeric_limits<TypeParam>;
  Value const small = TypeParam{7};
  EXPECT_TRUE(small.IsInt());
  EXPECT_EQ(small, 7);
  for (TypeParam const limit : {Limits::min(), Limits::max()}) {
    Value const value = limit;
    EXPECT_EQ(value.IsInt(), std::in_range<int>(limit));
    EXPECT_EQ(static_cast<double>(value), static_cast<double>(limit));
  }
}

TEST(JsonNumber, OfAnyTypeIsStoredInAnObject) {
  Object object;
  object["size"] = 5'000'000'000LL;
  object["count"] = std::size_t{3};
  object["ratio"] = 0.5F;
  object["time"] = 1L;
  EXPECT_EQ(object.ToText(), R"({"count":3,"ratio":0.5,"size":5e+09,"time":1})");
}

TEST(JsonNumber, IsComparedExactlyBeyond53Bits) {
  constexpr long long kJustAbove = 9007199254740993;  // 2^53 + 1, which is no double
  EXPECT_TRUE(Value(kTwoTo53) < kJustAbove && kJustAbove > Value(kTwoTo53));
  EXPECT_FALSE(Value(kTwoTo53) == kJustAbove);
  EXPECT_TRUE(Value(-kTwoTo53) > -kJustAbove);
  EXPECT_TRUE(Value(kTwoTo53 + 2) > static_cast<unsigned long long>(kJustAbove));
  EXPECT_TRUE(Value(kTwoTo53) == kJustAbove - 1);

  using Signed = std::numeric_limits<long long>;
  using Unsigned = std::numeric_limits<unsigned long long>;
  EXPECT_TRUE(Value(kTwoTo63) > Signed::max());
  EXPECT_FALSE(Value(kTwoTo63) == Signed::max());
  EXPECT_TRUE(Value(-kTwoTo63) == Signed::min());
  EXPECT_TRUE(Value(kTwoTo64) > Unsigned::max());
  EXPECT_FALSE(Value(kTwoTo64) == Unsigned::max());
  EXPECT_TRUE(Value(kTwoTo63) == 9223372036854775808ULL);
  EXPECT_TRUE(Value(std::nextafter(kTwoTo64, 0.0)) == Unsigned::max() - 2047);
}

TEST(JsonNumber, FitsAFloatUpToItsLargest) {
  EXPECT_EQ(In<float>(Value(static_cast<double>(FLT_MAX))), FLT_MAX);
  EXPECT_EQ(In<float>(Value(-static_cast<double>(FLT_MAX))), -FLT_MAX);
  EXPECT_EQ(In<float>(Value(0.1)), 0.1F);
  EXPECT_EQ(In<float>(Value(1e-300)), 0.0F);
  EXPECT_EQ(In<float>(Value(16777217)), 16777216.0F);  // rounded, as each such number is
  for (double const number :
       {std::nextafter(static_cast<double>(FLT_MAX), kInfinity), 1e39, -1e39, DBL_MAX, -DBL_MAX}) {
    EXPECT_EQ(RefusalIn<float>(Value(number)), "JSON number does not fit a floating-point number");
  }
}

TEST(JsonNumber, FitsEveryFloatingPointTypeWithoutAnEnd) {
  EXPECT_EQ(In<float>(Value(kInfinity)), std::numeric_limits<float>::infinity());
  EXPECT_EQ(In<long double>(Value(-kInfinity)), -std::numeric_limits<long double>::infinity());
  EXPECT_TRUE(std::isnan(In<float>(Value(kNan))));
  EXPECT_EQ(In<long double>(Value(DBL_MAX)), static_cast<long double>(DBL_MAX));
  EXPECT_EQ(In<long double>(Value(0.1)), static_cast<long double>(0.1));
}

TEST(JsonNumber, ComparesWithFloatingPointNumbers) {
  EXPECT_TRUE(Value(1) < 1.5 && Value(2) > 1.5F && Value(1.5) == 1.5L);
  EXPECT_FALSE(Value(0.1) == 0.1F);  // they are two numbers
  EXPECT_TRUE(Value(kInfinity) == kInfinity && Value(kInfinity) > DBL_MAX);
  EXPECT_TRUE(Value(1) != kNan);
  EXPECT_FALSE(Value(1) < kNan || Value(1) >= kNan);
}

template <typename Type>
constexpr bool kIsComparedWith = requires(Value const& value, Type other) {
  value == other;
};

TEST(JsonNumber, IsNoCharacterAndNoPointer) {
  static_assert(!std::convertible_to<Value, char> && !std::convertible_to<Value, wchar_t>);
  static_assert(!std::convertible_to<Value, char16_t> && !std::convertible_to<Value, char32_t>);
  static_assert(!kIsComparedWith<char> && !kIsComparedWith<char32_t> && !kIsComparedWith<void*>);
  static_assert(kIsComparedWith<std::int8_t> && kIsComparedWith<std::uint8_t>);
}

TEST(JsonNumber, ComparesWithAnEnumeration) {
  enum State { Good, Malfunction };
  EXPECT_TRUE(HealthSummary()["zr"] == Good && HealthSummary()["zr"] != Malfunction);
}

}  // namespace
