#include "app/config_envelopes.hpp"

#include "bus/Envelope.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

namespace tessaron::config {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::string data_of(Bytes const& payload) {
    auto const data = bus::decode_envelope(payload).data;
    return {data.begin(), data.end()};
}

TEST(ConfigEnvelopes, AListHasALinePerFieldAndItsPartsInOrder) {
    ConfigListReply reply;
    reply.fields = {{"web_port", "int", "Bind port", "8080", "7080", false},
                    {"app_name", "string", "", "a = b", "a = b", true}};
    EXPECT_EQ(data_of(reply.build()), "web_port\x1fint\x1f"
                                      "8080\x1f"
                                      "7080\x1f"
                                      "0\x1f"
                                      "Bind port\n"
                                      "app_name\x1fstring\x1f"
                                      "a = b\x1f"
                                      "a = b\x1f"
                                      "1\x1f");
    ConfigListReply const read = ConfigListReply::parse(reply.build());
    EXPECT_TRUE(read.ok);
    ASSERT_EQ(read.fields.size(), 2U);
    EXPECT_EQ(read.fields[0].name, "web_port");
    EXPECT_EQ(read.fields[0].type, "int");
    EXPECT_EQ(read.fields[0].value, "8080");
    EXPECT_EQ(read.fields[0].default_value, "7080");
    EXPECT_FALSE(read.fields[0].is_default);
    EXPECT_EQ(read.fields[0].description, "Bind port");
    EXPECT_TRUE(read.fields[1].is_default);
}

TEST(ConfigEnvelopes, WhatWouldBreakALineIsABlank) {
    ConfigListReply reply;
    reply.fields = {{"a", "string", "", "x\x1fy\nz\r", "", false}};
    ConfigListReply const read = ConfigListReply::parse(reply.build());
    ASSERT_EQ(read.fields.size(), 1U);
    EXPECT_EQ(read.fields[0].value, "x y z ");
}

TEST(ConfigEnvelopes, ALineWithTooFewPartsIsPassedOver) {
    bus::Envelope envelope{{{"status", "ok"}}, {'a', '\x1f', 'b', '\n', '\n'}};
    EXPECT_THAT(ConfigListReply::parse(encode_envelope(envelope)).fields, IsEmpty());
}

TEST(ConfigEnvelopes, AListThatIsAnErrorHasNoData) {
    ConfigListReply reply{false, "why", {{"a", "string", "", "", "", true}}};
    EXPECT_EQ(data_of(reply.build()), "");
    EXPECT_EQ(ConfigListReply::parse(reply.build()).error, "why");
}

TEST(ConfigEnvelopes, OrdersAndTheirRepliesReadBack) {
    EXPECT_EQ(ConfigListRequest().build(), Bytes(8, 0));
    EXPECT_THROW(ConfigListRequest::parse({1}), std::invalid_argument);
    ConfigSetRequest const request{"web_port", "80 = \n"};
    EXPECT_THAT(bus::decode_envelope(request.build()).fields,
                ElementsAre(Pair("name", "web_port"), Pair("value", "80 = \n")));
    EXPECT_EQ(ConfigSetRequest::parse(request.build()).value, request.value);
    EXPECT_THAT(bus::decode_envelope(ConfigSetReply{false, "no"}.build()).fields,
                ElementsAre(Pair("error", "no"), Pair("status", "error")));
    EXPECT_TRUE(ConfigSetReply::parse(ConfigSetReply().build()).ok);
}

} // namespace
} // namespace tessaron::config
