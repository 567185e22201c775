#include "app/utilities/json_value.hpp"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <thread>

namespace tessaron::json {
namespace {

TEST(JsonValue, WrongTypeReadsAsTheFallback) {
    Value const values[] = {
        Value(),       Value(nullptr),         Value(true), Value(1.5),
        Value("text"), Value(Value::Array{1}), Value(7),    Value(Value::Object{{"k", 1}})};
    for (Value const& value : values) {
        std::string const text = value.dump();
        EXPECT_EQ(value.is_null(), text == "null");
        EXPECT_EQ(value.as_bool(false), text == "true") << text;
        EXPECT_EQ(value.as_double(-1), text == "1.5" ? 1.5 : text == "7" ? 7 : -1) << text;
        EXPECT_EQ(value.as_string("fallback"), text == "\"text\"" ? "text" : "fallback") << text;
        EXPECT_EQ(value.as_array().size(), text == "[1]" ? 1U : 0U) << text;
        EXPECT_EQ(value.as_object().size(), text == "{\"k\":1}" ? 1U : 0U) << text;
    }
}

TEST(JsonValue, TextLiteralIsAStringAndNoBool) {
    EXPECT_EQ(Value("false").dump(), "\"false\"");
    EXPECT_EQ(Value(std::string("a\0b", 3)).as_string("").size(), 3U);
}

TEST(JsonValue, AtChainsThroughMissingMembersAndWrongTypes) {
    auto const value = Value::parse(R"({"a":{"b":[1]},"n":5})");
    EXPECT_EQ(value.at("a").at("b").as_array().at(0).as_double(0), 1);
    EXPECT_TRUE(value.at("x").at("y").at("z").is_null());
    EXPECT_TRUE(value.at("n").at("a").is_null());
    EXPECT_TRUE(value.at("a").at("b").at("0").is_null());
    EXPECT_TRUE(value.at("").is_null());
}

TEST(JsonValue, CopySurvivesItsOriginal) {
    auto original = std::make_unique<Value>(Value::parse(R"({"a":[1,"x"]})"));
    Value const copy = *original;
    Value const member = original->at("a");
    original.reset();
    EXPECT_EQ(copy.dump(), R"({"a":[1,"x"]})");
    EXPECT_EQ(member.dump(), R"([1,"x"])");
}

TEST(JsonValue, AssignmentReplacesWithoutTouchingCopies) {
    Value value(Value::Array{1, 2});
    Value const copy = value;
    value = Value("now text");
    EXPECT_EQ(value.dump(), "\"now text\"");
    EXPECT_EQ(copy.dump(), "[1,2]");
}

TEST(JsonValue, OwnMemberMayBeAssignedToAValue) {
    auto value = Value::parse("[[[7]]]");
    value = value.as_array().front();
    value = value.as_array().front();
    EXPECT_EQ(value.dump(), "[7]");
}

TEST(JsonValue, MovedFromContainerReadsAsEmpty) {
    Value array(Value::Array{1});
    Value object(Value::Object{{"a", 1}});
    Value const taken[] = {std::move(array), std::move(object)};
    EXPECT_TRUE(array.as_array().empty());   // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(object.as_object().empty()); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(object.at("a").is_null());
    EXPECT_EQ(array.dump() + object.dump(), "[]{}");
    EXPECT_EQ(taken[0].dump() + taken[1].dump(), "[1]{\"a\":1}");
}

TEST(JsonValue, ContentsAreSharedSafelyBetweenThreads) {
    auto const shared = Value::parse(R"({"a":[1,2,{"b":[3]}]})");
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([copy = shared] {
            for (int round = 0; round < 500; ++round) {
                Value const mine(Value::Array{copy, copy.at("a"), round});
                EXPECT_EQ(mine.as_array().front().at("a").as_array().size(), 3U);
            }
        });
    }
}

TEST(JsonDump, WholeNumbersKeepAllTheirDigits) {
    EXPECT_EQ(Value(3.0).dump(), "3");
    EXPECT_EQ(Value(1700000000).dump(), "1700000000");
    EXPECT_EQ(Value(-9007199254740993.0).dump(), "-9007199254740992");
    EXPECT_EQ(Value(-0.0).dump(), "0");
    EXPECT_EQ(Value(-0x1p63).dump(), "-9223372036854775808");
    EXPECT_EQ(Value(0x1p63 - 1024).dump(), "9223372036854774784");
}

TEST(JsonDump, OtherNumbersHaveTheStreamsSixDigits) {
    EXPECT_EQ(Value(0.1234567).dump(), "0.123457");
    EXPECT_EQ(Value(1234567.5).dump(), "1.23457e+06");
    EXPECT_EQ(Value(1e300).dump(), "1e+300");
    EXPECT_EQ(Value(0x1p63).dump(), "9.22337e+18");
    EXPECT_EQ(Value(HUGE_VAL).dump(), "inf");
    EXPECT_EQ(Value(-HUGE_VAL).dump(), "-inf");
    EXPECT_EQ(Value(std::numeric_limits<double>::quiet_NaN()).dump(), "nan");
}

TEST(JsonDump, KeysComeOutInAscendingByteOrder) {
    EXPECT_EQ(Value::parse(R"({"b":1,"a":2,"B":3,"":4,"é":5})").dump(),
              R"({"":4,"B":3,"a":2,"b":1,"é":5})");
}

TEST(JsonDump, ControlBytesAreEscapedAndAllOthersPassThrough) {
    EXPECT_EQ(Value("\t\n\r\"\\/").dump(), R"("\t\n\r\"\\/")");
    EXPECT_EQ(Value(std::string("\0\x01\x0b\x1f", 4)).dump(), R"("\u0000\u0001\u000b\u001f")");
    EXPECT_EQ(Value("\x20\x7f\x80\xffgr\xc3\xbc\xc3\x9f").dump(),
              "\"\x20\x7f\x80\xffgr\xc3\xbc\xc3\x9f\"");
    EXPECT_EQ(Value(Value::Object{{"a\"\n", 1}}).dump(), R"({"a\"\n":1})");
}

TEST(JsonDump, ContainersAreCompact) {
    EXPECT_EQ(Value(Value::Array{}).dump(), "[]");
    EXPECT_EQ(Value(Value::Object{}).dump(), "{}");
    EXPECT_EQ(Value(Value::Array{nullptr, true, false, "[", Value::Array{}, "{", 1}).dump(),
              R"([null,true,false,"[",[],"{",1])");
    EXPECT_EQ(Value(Value::Object{{"{", "["}, {"}", "{"}}).dump(), R"({"{":"[","}":"{"})");
}

} // namespace
} // namespace tessaron::json
