#include "proto/bus/topic_description.hpp"

#include "tests/support/topics.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace proto::bus {
namespace {

using tessaron::test::topic_named;
using Lines = std::vector<std::string>;

TopicDescription full_topic() {
    return {"pkg.install",
            "Installs a package",
            TopicKind::REQUEST,
            {{"name", "string", true}, {"version", "", false}},
            true};
}

TEST(TopicDescriptionLine, HasItsPartsInOrder) {
    EXPECT_EQ(encode_topic_description_line(full_topic()), "pkg.install\x1F"
                                                           "Installs a package\x1F"
                                                           "1\x1F"
                                                           "1\x1F"
                                                           "name\x1Dstring\x1D"
                                                           "1\x1E"
                                                           "version\x1D\x1D"
                                                           "0");
    EXPECT_EQ(encode_topic_description_line({}), "\x1F\x1F"
                                                 "0\x1F"
                                                 "0\x1F");
}

TEST(TopicDescriptionLine, DecodesWhatWasEncoded) {
    EXPECT_EQ(decode_topic_description_line(encode_topic_description_line(full_topic())),
              full_topic());
    EXPECT_EQ(decode_topic_description_line(encode_topic_description_line({})), TopicDescription{});
}

TEST(TopicDescriptionLine, WithOnePartGivesOnlyAName) {
    EXPECT_EQ(decode_topic_description_line("status"), topic_named("status"));
}

TEST(TopicDescriptionLine, EachLaterPartIsReadIfPresent) {
    EXPECT_EQ(decode_topic_description_line("a\x1F"
                                            "b"),
              (TopicDescription{"a", "b", TopicKind::EVENT, {}, false}));
    EXPECT_EQ(decode_topic_description_line("a\x1F"
                                            "b\x1F"
                                            "1"),
              (TopicDescription{"a", "b", TopicKind::REQUEST, {}, false}));
    EXPECT_EQ(decode_topic_description_line("a\x1F"
                                            "b\x1F"
                                            "1\x1F"
                                            "1"),
              (TopicDescription{"a", "b", TopicKind::REQUEST, {}, true}));
}

TEST(TopicDescriptionLine, PartsBeyondTheLastAreIgnored) {
    std::string const line = encode_topic_description_line(full_topic());
    EXPECT_EQ(decode_topic_description_line(line + "\x1F"
                                                   "more"),
              full_topic());
}

TEST(TopicDescriptionLine, OnlyExactlyOneIsTrue) {
    for (std::string const other : {"", "0", "2", "11", "true", " 1", "1 "}) {
        TopicDescription const topic = decode_topic_description_line(
            "a\x1F\x1F" + other + "\x1F" + other + "\x1Fp\x1D\x1D" + other);
        EXPECT_EQ(topic.kind, TopicKind::EVENT) << other;
        EXPECT_FALSE(topic.flag) << other;
        EXPECT_FALSE(topic.params.at(0).flag) << other;
    }
}

TEST(TopicDescriptionLine, AParamWithOnePartGivesOnlyAName) {
    TopicDescription const topic = decode_topic_description_line("a\x1F\x1F\x1F\x1Fp\x1Eq\x1Dr");
    EXPECT_EQ(topic.params, (std::vector<TopicParam>{{"p", "", false}, {"q", "r", false}}));
}

TEST(Lines, AnEmptyTextGivesNone) {
    EXPECT_TRUE(split_lines("").empty());
    EXPECT_TRUE(split_topic_descriptions("").empty());
    EXPECT_EQ(join_lines({}), "");
}

TEST(Lines, SplittingUndoesJoining) {
    for (Lines const& lines :
         {Lines{"a"}, Lines{"a", "b"}, Lines{"", "b"}, Lines{"a", ""}, Lines{"", "", ""}}) {
        EXPECT_EQ(split_lines(join_lines(lines)), lines);
    }
    std::vector<TopicDescription> const topics{full_topic(), {}, topic_named("last")};
    EXPECT_EQ(split_topic_descriptions(join_topic_descriptions(topics)), topics);
}

TEST(SplitByChar, GivesOnePartMoreThanThereAreSeparators) {
    using Parts = std::vector<std::string_view>;
    EXPECT_EQ(detail::split_by_char("", ','), Parts{""});
    EXPECT_EQ(detail::split_by_char("a", ','), Parts{"a"});
    EXPECT_EQ(detail::split_by_char(",a,", ','), (Parts{"", "a", ""}));
}

} // namespace
} // namespace proto::bus
