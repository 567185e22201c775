#include "app/utilities/json_value.hpp"

#include <cerrno>
#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>

namespace tessaron::json {
namespace {

std::string round_trip(std::string const& text) {
    return Value::parse(text).dump();
}

template <typename Exception>
std::string message_of(std::string const& text) {
    try {
        return "parsed as " + Value::parse(text).dump();
    } catch (Exception const& error) {
        return error.what();
    }
}

std::string error_of(std::string const& text) {
    return message_of<std::invalid_argument>(text);
}

TEST(JsonParser, FirstOfTwoDuplicateKeysWins) {
    EXPECT_EQ(Value::parse(R"({"a":1,"a":2})").at("a").as_double(0), 1);
    EXPECT_EQ(round_trip(R"({"b":0,"a":[1],"a":[2],"b":3})"), R"({"a":[1],"b":0})");
}

TEST(JsonParser, UnicodeEscapesAreDropped) {
    EXPECT_EQ(Value::parse(R"("\u0041")").as_string("?"), "");
    EXPECT_EQ(Value::parse(R"("x\u0041y")").as_string("?"), "xy");
    EXPECT_EQ(Value::parse(R"("\uzz\"z")").as_string("?"), "z");
}

TEST(JsonParser, UnicodeEscapeMayStepBeyondTheEnd) {
    EXPECT_EQ(error_of(R"("\u00")"), "tiny_json: expected '\"' at offset 7");
    EXPECT_EQ(error_of(R"(["\u)"), "tiny_json: expected '\"' at offset 8");
    EXPECT_EQ(error_of(R"({"\u)"), "tiny_json: expected '\"' at offset 8");
}

TEST(JsonParser, KnownEscapesAreDecodedAndOthersLoseTheirBackslash) {
    EXPECT_EQ(Value::parse(R"("\"\/\\\n\r\t")").as_string("?"), "\"/\\\n\r\t");
    EXPECT_EQ(Value::parse(R"("\b")").as_string("?"), "b");
    EXPECT_EQ(Value::parse(R"("\f\q\'")").as_string("?"), "fq'");
}

TEST(JsonParser, OtherBytesOfAStringAreCopied) {
    std::string const bytes("a\n\t\x01\x7f\x80\xff\xc3\xa4\0z", 11);
    EXPECT_EQ(Value::parse('"' + bytes + '"').as_string("?"), bytes);
}

TEST(JsonParser, UnclosedStringFailsAtItsEnd) {
    EXPECT_EQ(error_of(R"("abc)"), "tiny_json: expected '\"' at offset 4");
    EXPECT_EQ(error_of("\"abc\\"), "tiny_json: expected '\"' at offset 5");
    EXPECT_EQ(error_of(R"("abc\")"), "tiny_json: expected '\"' at offset 6");
}

TEST(JsonParser, MissingValueIsAnUnexpectedEnd) {
    for (std::string const text : {"", " \n", "[", "[1,", "[ 1 , ", R"({"a":)", R"({"a": )"}) {
        EXPECT_EQ(error_of(text), "tiny_json: unexpected end of input") << text;
    }
}

TEST(JsonParser, TextBehindTheValueIsGarbage) {
    EXPECT_EQ(error_of("1 2"), "tiny_json: trailing garbage after top-level value at offset 2");
    EXPECT_EQ(error_of("nullx"), "tiny_json: trailing garbage after top-level value at offset 4");
    EXPECT_EQ(error_of("[] ]"), "tiny_json: trailing garbage after top-level value at offset 3");
    EXPECT_EQ(error_of(std::string("1\0", 2)),
              "tiny_json: trailing garbage after top-level value at offset 1");
}

TEST(JsonParser, CommaBeforeAClosingBracketFails) {
    EXPECT_EQ(error_of("[1,]"), "stod");
    EXPECT_EQ(error_of(R"({"a":1,})"), "tiny_json: expected '\"' at offset 7");
}

TEST(JsonParser, MissingPunctuationIsNamedWithItsOffset) {
    EXPECT_EQ(error_of("[1 2]"), "tiny_json: expected ']' at offset 3");
    EXPECT_EQ(error_of("[1"), "tiny_json: expected ']' at offset 2");
    EXPECT_EQ(error_of("[1}"), "tiny_json: expected ']' at offset 2");
    EXPECT_EQ(error_of("[truex]"), "tiny_json: expected ']' at offset 5");
    EXPECT_EQ(error_of(R"({"a" 1})"), "tiny_json: expected ':' at offset 5");
    EXPECT_EQ(error_of(R"({"a":1 "b":2})"), "tiny_json: expected '}' at offset 7");
    EXPECT_EQ(error_of(R"({"a":1)"), "tiny_json: expected '}' at offset 6");
    EXPECT_EQ(error_of("{"), "tiny_json: expected '\"' at offset 1");
    EXPECT_EQ(error_of("{a:1}"), "tiny_json: expected '\"' at offset 1");
}

TEST(JsonParser, WhiteSpaceMayStandBetweenAllTokens) {
    EXPECT_EQ(round_trip("[ 1 , 2 ]"), "[1,2]");
    EXPECT_EQ(round_trip(" \t\n\v\f\r{ \"a\" : [ ] , \"b\" : { } , \"c\" : null } \n"),
              R"({"a":[],"b":{},"c":null})");
    // A no-break space is no white space, and no negative argument for isspace.
    EXPECT_EQ(error_of("\xa0"
                       "1"),
              "stod");
}

TEST(JsonParser, NumbersFollowTheGrammarOfTheStandardConversion) {
    EXPECT_EQ(Value::parse("+1").as_double(0), 1);
    EXPECT_EQ(Value::parse("0x10").as_double(0), 16);
    EXPECT_EQ(Value::parse("1e3").as_double(0), 1000);
    EXPECT_EQ(Value::parse(".5").as_double(0), 0.5);
    EXPECT_EQ(Value::parse("-7").as_double(0), -7);
    EXPECT_EQ(Value::parse("inf").as_double(0), HUGE_VAL);
    EXPECT_EQ(Value::parse("-infinity").as_double(0), -HUGE_VAL);
    EXPECT_TRUE(std::isnan(Value::parse("nan").as_double(0)));
    EXPECT_EQ(round_trip("[0x1p3,nan(abc),1e+2]"), "[8,nan,100]");
    EXPECT_EQ(error_of("[1e]"), "tiny_json: expected ']' at offset 2");
}

TEST(JsonParser, TextThatIsNoNumberEndsInTheConversionsOwnError) {
    for (std::string const text : {"x", "tru", "]", "-", "'a'", "[}", R"({"a":,})"}) {
        EXPECT_EQ(error_of(text), "stod") << text;
    }
    EXPECT_EQ(error_of(std::string(1, '\0')), "stod");
}

TEST(JsonParser, NumberOutOfRangeEndsInTheConversionsOwnError) {
    EXPECT_EQ(message_of<std::out_of_range>("1e999"), "stod");
    EXPECT_EQ(message_of<std::out_of_range>("[1,-1e999]"), "stod");
    EXPECT_EQ(message_of<std::out_of_range>("1e-999"), "stod");
}

TEST(JsonParser, ParsingLeavesErrnoAlone) {
    errno = ENOENT;
    Value::parse("[1,2.5]");
    EXPECT_EQ(message_of<std::out_of_range>("1e999"), "stod");
    EXPECT_EQ(errno, ENOENT);
}

TEST(JsonParser, OnlyThePrefixOfAWordCounts) {
    EXPECT_TRUE(Value::parse("true").as_bool(false));
    EXPECT_FALSE(Value::parse("false").as_bool(true));
    EXPECT_TRUE(Value::parse("null").is_null());
    EXPECT_EQ(error_of("[falsey]"), "tiny_json: expected ']' at offset 6");
}

TEST(JsonParser, NestedContainersKeepTheirMembersApart) {
    std::string const text = R"({"a":[1,[2,{"b":[]},3],{"c":{"d":4}}],"e":{"f":5}})";
    EXPECT_EQ(round_trip(text), text);
}

// A copy of the rest of the text per number would move a hundred gigabytes here.
TEST(JsonParser, MegabyteOfNumbersParses) {
    std::string text = "[7";
    while (text.size() < 1'000'000) {
        text += ",7";
    }
    auto const value = Value::parse(text + "]");
    EXPECT_EQ(value.as_array().size(), text.size() / 2);
    EXPECT_EQ(value.dump(), text + "]");
}

} // namespace
} // namespace tessaron::json
