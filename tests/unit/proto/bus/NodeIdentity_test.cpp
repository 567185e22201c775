#include "proto/bus/NodeIdentity.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace proto::bus {
namespace {

std::string field_at(Bytes const& payload, std::size_t offset) {
    return {payload.begin() + static_cast<std::ptrdiff_t>(offset),
            payload.begin() + static_cast<std::ptrdiff_t>(offset) + 50};
}

std::string padded(std::string text) {
    text.resize(50);
    return text;
}

TEST(NodeIdentity, HasEachFieldAtItsPlaceOnTheWire) {
    Bytes const payload =
        encode_identity(make_identity("name", "binary", 0x01020304, "group", "extra"));
    ASSERT_EQ(payload.size(), 204U);
    EXPECT_EQ(field_at(payload, 0), padded("name"));
    EXPECT_EQ(field_at(payload, 50), padded("binary"));
    EXPECT_EQ(field_at(payload, 100), padded("group"));
    EXPECT_EQ(field_at(payload, 150), padded("extra"));
    EXPECT_EQ(Bytes(payload.begin() + 200, payload.end()), (Bytes{4, 3, 2, 1}));
}

TEST(NodeIdentity, CutsEachTextTo49Bytes) {
    std::string const text(60, 'x');
    Bytes const payload = encode_identity(make_identity(text, text, 0, text, text));
    for (std::size_t const offset : {0U, 50U, 100U, 150U}) {
        EXPECT_EQ(field_at(payload, offset), padded(std::string(49, 'x')));
    }
}

TEST(NodeIdentity, DecodesWhatWasEncoded) {
    NodeIdentity const identity = make_identity("a", "b", 7, "c", "d");
    EXPECT_EQ(decode_identity(encode_identity(identity)), identity);
    EXPECT_EQ(decode_identity(encode_identity_and_topic(identity, "topic")), identity);
}

TEST(NodeIdentity, KeepsATextWithoutTerminator) {
    Bytes payload(204);
    std::fill_n(payload.begin(), 50, std::uint8_t{'x'});
    EXPECT_EQ(encode_identity(decode_identity(payload)), payload);
}

TEST(NodeIdentity, IsAllZerosWhenThePayloadIsTooShort) {
    Bytes const whole = encode_identity(make_identity("a", "b", 7, "c", "d"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        Bytes const cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(decode_identity(cut), NodeIdentity{}) << size;
        EXPECT_EQ(decode_topic_after_identity(cut), "") << size;
    }
}

TEST(TopicAfterIdentity, IsEmptyInAPayloadOf204Bytes) {
    EXPECT_EQ(decode_topic_after_identity(Bytes(204, 'x')), "");
}

TEST(TopicAfterIdentity, IsTheRestOfThePayloadAsItStands) {
    std::string const topic("a.*\0b\n", 6);
    Bytes const payload = encode_identity_and_topic(make_identity("n", "b", 1), topic);
    EXPECT_EQ(payload.size(), 204U + topic.size());
    EXPECT_EQ(decode_topic_after_identity(payload), topic);
    EXPECT_EQ(decode_topic_after_identity(Bytes(205, 'x')), "x");
}

} // namespace
} // namespace proto::bus
