#include "bus/Envelope.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using test::Bytes;
using test::bytes_of;
using test::Collected;
using test::HubNode;
using test::K_LONG;
using test::LoopbackBus;
using test::MessageType;
using test::RawNode;
using test::topic_hash;

std::vector<BusTraceEntry> trace(Hub const& hub, MessageType type, char direction) {
    auto const copy = hub.bus_trace_snapshot();
    std::vector<BusTraceEntry> entries(
        copy.entries.begin(),
        copy.entries.begin() + static_cast<std::ptrdiff_t>(
                                   std::min<std::uint64_t>(copy.write_index, copy.entries.size())));
    std::erase_if(entries, [&](BusTraceEntry const& entry) {
        return entry.type != type || entry.direction != direction;
    });
    return entries;
}

struct HubTrace : testing::Test {
    HubTrace() {
        node.join();
        peer.join();
    }
    std::vector<BusTraceEntry> sent(MessageType type) {
        return trace(node.hub, type, BusTraceEntry::K_SENT);
    }
    std::vector<BusTraceEntry> received(MessageType type) {
        return trace(peer.hub, type, BusTraceEntry::K_RECEIVED);
    }
    /// All that was sent before has been received, too.
    void settle() {
        bool const answered = peer.hub.request("echo", {}, K_LONG).has_value();
        EXPECT_TRUE(answered);
        EXPECT_TRUE(node.hub.request("echo", {}, K_LONG).has_value());
    }

    void SetUp() override {
        for (HubNode* const hub : {&node, &peer}) {
            hub->hub.serve(
                "echo", [](Bytes const& payload) { return payload; }, "");
        }
    }

    LoopbackBus bus;
    HubNode node{bus, 200, "node"};
    HubNode peer{bus, 201, "peer"};
};

TEST_F(HubTrace, AnEventIsRecordedOnceOnEitherSideWithItsTopicAndText) {
    node.hub.publish("disk.state", Envelope{{{"free", "12"}}, {}});
    peer.hub.advertise("disk.state", "", proto::bus::TopicKind::EVENT); // It knows the name.
    node.hub.publish("disk.state", Envelope{{{"free", "13"}}, {}});
    settle();
    auto const out = sent(MessageType::EVENT);
    auto const in = received(MessageType::EVENT);
    ASSERT_EQ(out.size(), 2u);
    ASSERT_EQ(in.size(), 2u);
    EXPECT_STREQ(out[1].topic, "disk.state");
    EXPECT_STREQ(in[1].topic, "disk.state");
    for (auto const* const entry : {&out[1], &in[1]}) {
        EXPECT_STREQ(entry->data, "free=13");
        EXPECT_EQ(entry->source, 200u);
        EXPECT_EQ(entry->destination, Hub::BROADCAST_ADDRESS);
        EXPECT_EQ(entry->size, 22);
    }
    EXPECT_EQ(out[1].msg_id, in[1].msg_id);
    EXPECT_LE(out[1].timestamp, in[1].timestamp);
}

TEST_F(HubTrace, AMessageInManyFramesIsRecordedOnceWhenItIsWhole) {
    node.hub.publish_event("big", Bytes(100'000, 0xFF));
    settle();
    ASSERT_EQ(sent(MessageType::EVENT).size(), 1u);
    auto const in = received(MessageType::EVENT);
    ASSERT_EQ(in.size(), 1u);
    EXPECT_EQ(in[0].size, 65'535);
    EXPECT_STREQ(in[0].data, "(raw 100000b)");
}

TEST_F(HubTrace, ARequestAndItsReplyAreRecordedOnBothSides) {
    ASSERT_TRUE(peer.hub.request("echo", bytes_of("hello there!"), K_LONG));
    auto const requests = trace(node.hub, MessageType::REQUEST, BusTraceEntry::K_RECEIVED);
    auto const replies = sent(MessageType::RESPONSE);
    ASSERT_EQ(requests.size(), 1u);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_STREQ(requests[0].topic, "echo");
    EXPECT_STREQ(requests[0].data, "(raw 12b)");
    EXPECT_EQ(replies[0].destination, 201u);
    EXPECT_EQ(replies[0].msg_id, requests[0].msg_id);
    EXPECT_EQ(received(MessageType::RESPONSE).back().source, 200u);
}

TEST_F(HubTrace, AClientsMessageNamesTheClientAsItsSource) {
    auto const client = node.hub.connect(500, proto::bus::make_identity("client", "b", 1));
    client->publish("tick", Bytes{1});
    settle();
    EXPECT_EQ(sent(MessageType::EVENT).back().source, 500u);
    EXPECT_EQ(received(MessageType::EVENT).back().source, 500u);
}

TEST_F(HubTrace, WhatIsRefusedOrForOthersIsNotRecorded) {
    node.hub.send_envelope(MessageType::EVENT, Hub::BROADCAST_ADDRESS,
                           Bytes(Hub::K_MAX_MESSAGE_SIZE + 1));
    node.hub.send_envelope(MessageType::EVENT, 77, bytes_of("for somebody else"));
    settle();
    EXPECT_EQ(sent(MessageType::EVENT).size(), 1u);
    EXPECT_EQ(received(MessageType::EVENT).size(), 0u);
}

TEST_F(HubTrace, TheRawEntriesAreThoseOfTheSnapshot) {
    node.hub.publish_event("tick", Bytes{1});
    auto const copy = node.hub.bus_trace_snapshot();
    EXPECT_EQ(node.hub.bus_trace_raw_write_index(), copy.write_index);
    std::uint64_t const last = (copy.write_index - 1) % Hub::K_TRACE_SIZE;
    EXPECT_STREQ(read_trace_slot(node.hub.bus_trace_raw_entries()[last]).topic, "tick");
}

} // namespace
} // namespace tessaron::bus
