#include "app/JsonConfigCodec.hpp"

#include "tests/support/sample_fields.hpp"

#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

using testing::Test;

class JsonConfigCodecTest : public Test {
protected:
    DecodeReport decode(std::string const& text) { return codec_.decode(text, config_); }

    JsonConfigCodec codec_;
    Config config_{test::K_SAMPLE_FIELDS};
};

TEST_F(JsonConfigCodecTest, MembersAreSortedAndIndentedAndUnsetValuesAreNull) {
    std::string const text = codec_.encode(config_);
    EXPECT_EQ(text.substr(0, text.find("\n  \"app_name\"")), R"({
  "app_dir": {
    "default": "/nonexistent/sample",
    "description": "Where its data are",
    "type": "string",
    "value": null
  },)");
}

TEST_F(JsonConfigCodecTest, WhatWasEncodedDecodesWithoutAnIssue) {
    config_.set<std::string>("app_name", "other");
    std::string const text = codec_.encode(config_);
    EXPECT_FALSE(decode(text).healed());
    EXPECT_EQ(config_.get<std::string>("app_name"), "other");
    EXPECT_EQ(codec_.encode(config_), text);
}

TEST_F(JsonConfigCodecTest, AnEmptyFileIsMalformedAndAllDefaultsHold) {
    config_.set<long long>("web_port", 1);
    DecodeReport const report = decode("");
    ASSERT_EQ(report.issues.size(), 1U);
    EXPECT_EQ(report.issues[0].field, "");
    EXPECT_TRUE(report.issues[0].message.starts_with("malformed JSON ("));
    EXPECT_TRUE(report.issues[0].message.ends_with("), using defaults for every field"));
    EXPECT_EQ(config_.get<long long>("web_port"), 7080);
}

TEST_F(JsonConfigCodecTest, ARootThatIsNoObjectIsOneIssue) {
    DecodeReport const report = decode("[1]");
    ASSERT_EQ(report.issues.size(), 1U);
    EXPECT_EQ(report.issues[0].message,
              "root is not a JSON object, using defaults for every field");
}

TEST_F(JsonConfigCodecTest, EveryMissingFieldIsAnIssue) {
    DecodeReport const report = decode("{}");
    ASSERT_EQ(report.issues.size(), 3U);
    EXPECT_EQ(report.issues[1].field, "app_dir");
    EXPECT_EQ(report.issues[1].message, "missing from file, using default");
}

TEST_F(JsonConfigCodecTest, AFlatValueIsDroppedWithoutAnIssue) {
    EXPECT_FALSE(decode(R"({"app_name":{},"app_dir":{"value":null},"web_port":8080})").healed());
    EXPECT_EQ(config_.get<long long>("web_port"), 7080);
}

TEST_F(JsonConfigCodecTest, AValueOfAnotherTypeIsAnIssueOfItsField) {
    DecodeReport const report =
        decode(R"({"app_name":{"value":5},"app_dir":{"value":"/d"},"web_port":{"value":true}})");
    ASSERT_EQ(report.issues.size(), 2U);
    EXPECT_EQ(report.issues[0].field, "app_name");
    EXPECT_TRUE(report.issues[0].message.starts_with("has the wrong type ("));
    EXPECT_TRUE(report.issues[0].message.ends_with("), using default"));
    EXPECT_EQ(report.issues[1].field, "web_port");
    EXPECT_EQ(config_.get<std::string>("app_name"), "sample");
    EXPECT_EQ(config_.get<std::string>("app_dir"), "/d");
}

TEST_F(JsonConfigCodecTest, AMegabyteOfBracketsIsOneIssue) {
    EXPECT_EQ(decode(std::string(1 << 20, '[')).issues.size(), 1U);
    std::string objects;
    while (objects.size() < (1 << 20)) {
        objects += "{\"a\":";
    }
    EXPECT_EQ(decode(objects).issues.size(), 1U);
    // Whole and deep: the value of a field is looked at, never walked down.
    std::string const deep = std::string(500000, '[') + std::string(500000, ']');
    EXPECT_EQ(decode("{\"app_name\":{\"value\":" + deep + "}}").issues.size(), 3U);
}

TEST_F(JsonConfigCodecTest, AValueThatIsNotUtf8DoesNotKeepTheRestFromBeingSaved) {
    config_.set<std::string>("app_name", "\xff");
    config_.set<long long>("web_port", 9);
    EXPECT_FALSE(decode(codec_.encode(config_)).healed());
    EXPECT_EQ(config_.get<long long>("web_port"), 9);
}

} // namespace
} // namespace tessaron::config
