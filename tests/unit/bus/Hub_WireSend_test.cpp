#include "libraries/compression/zlibCompression/payload_compression.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using test::Bytes;
using test::bytes_of;
using test::Collected;
using test::HubNode;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::pattern_bytes;
using test::RawNode;
using test::topic_hash;
using testing::IsEmpty;

constexpr std::size_t K_CHUNK = Hub::K_MAX_DATA_FIELD_CHUNK_SIZE;

struct HubWireSend : testing::Test {
    HubWireSend() {
        listener.join();
        node.join();
        client = node.hub.connect(500, proto::bus::make_identity("client", "hub-test", 1));
        client->subscribe("topic", [this](std::string const&, Bytes const& payload, std::uint32_t) {
            heard_by_client.add(payload);
        });
    }

    std::vector<WireFrame> events(std::size_t count) {
        listener.wait_for(MessageType::EVENT, count, "the events have come");
        return listener.heard(MessageType::EVENT);
    }

    LoopbackBus bus;
    RawNode listener{bus, 9};
    HubNode node{bus, 200};
    Collected<Bytes> heard_by_client;
    std::shared_ptr<LocalClient> client;
};

TEST_F(HubWireSend, ThePayloadOfOneChunkGoesAsOneFrame) {
    Bytes const payload = pattern_bytes(K_CHUNK);
    node.hub.publish_event("topic", payload);
    auto const frames = events(1);
    EXPECT_EQ(frames[0].data, payload);
    EXPECT_EQ(frames[0].frag_flags, 0);
    EXPECT_EQ(frames[0].topic_id, topic_hash("topic"));
    EXPECT_EQ(frames[0].origin, std::nullopt);
    EXPECT_EQ(frames[0].ttl, 8);
}

TEST_F(HubWireSend, OneByteMoreMakesTwoFragments) {
    Bytes const payload = pattern_bytes(K_CHUNK + 1);
    node.hub.publish_event("topic", payload);
    auto const frames = events(2);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].data.size(), K_CHUNK);
    EXPECT_EQ(frames[0].frag_flags, 1);
    EXPECT_EQ(frames[0].frag_index, 0);
    EXPECT_EQ(frames[1].data, Bytes({payload.back()}));
    EXPECT_EQ(frames[1].frag_flags, 3);
    EXPECT_EQ(frames[1].frag_index, 1);
    EXPECT_EQ(frames[0].msg_id, frames[1].msg_id);
    EXPECT_EQ(frames[1].topic_id, topic_hash("topic"));
}

TEST_F(HubWireSend, TheLargestMessageIs262Frames) {
    node.hub.publish_event("topic", pattern_bytes(Hub::K_MAX_MESSAGE_SIZE));
    EXPECT_EQ(events(262).size(), 262u);
}

TEST_F(HubWireSend, TheFragmentsOfAMessageLeaveInOneBurstAndASingleFrameInNone) {
    auto& port = bus.add_port();
    HubNode other(port, 300);
    other.join();
    other.hub.publish_event("topic", Bytes(K_CHUNK));
    EXPECT_EQ(port.begun_bursts, 0);
    other.hub.publish_event("topic", Bytes(5 * K_CHUNK));
    EXPECT_EQ(port.begun_bursts, 1);
    EXPECT_EQ(port.ended_bursts, 1);
}

TEST_F(HubWireSend, WhatIsLargerIsRefusedAndHeardByNobody) {
    Bytes const payload(Hub::K_MAX_MESSAGE_SIZE + 1);
    WireFrame header;
    header.type = MessageType::EVENT;
    header.dest = Hub::BROADCAST_ADDRESS;
    header.topic_id = topic_hash("topic");
    EXPECT_EQ(node.hub.send_envelope_with_origin(header, payload, 0, "topic"), 0u);
    node.hub.publish_event("topic", payload);
    node.hub.publish_event("topic", bytes_of("marker"));
    EXPECT_EQ(events(1).front().data, bytes_of("marker"));
    EXPECT_EQ(heard_by_client.all(), std::vector<Bytes>{bytes_of("marker")});
}

TEST_F(HubWireSend, ARefusedPublicationLeavesNoStaleValueBehind) {
    node.hub.publish_event("topic", bytes_of("old"));
    node.hub.publish_event("topic", Bytes(Hub::K_MAX_MESSAGE_SIZE + 1));
    EXPECT_THAT(node.hub.matching_retained_events("topic"), IsEmpty());
}

TEST_F(HubWireSend, ReturnsTheBytesOfAllFrames) {
    std::size_t const whole = node.hub.send_envelope(MessageType::SUBSCRIBE_REQUEST, 9, Bytes(10));
    EXPECT_EQ(whole, 20u + 10);
    std::size_t const cut =
        node.hub.send_envelope(MessageType::DISCOVERY_RESPONSE, 9, Bytes(2 * K_CHUNK));
    EXPECT_EQ(cut, 2 * (20 + 3 + K_CHUNK));
}

TEST_F(HubWireSend, MessageIdsBeginWithOneAndGrow) {
    LoopbackBus other;
    HubNode fresh(other, 200);
    EXPECT_EQ(fresh.hub.next_msg_id(), 1u);
    EXPECT_EQ(fresh.hub.next_msg_id(), 2u);
}

TEST_F(HubWireSend, WhatAClientSendsCarriesItsOrigin) {
    client->publish("other", bytes_of("x"));
    auto const frames = events(1);
    EXPECT_EQ(frames[0].source, 200u);
    EXPECT_EQ(frames[0].origin, Origin(0, 500));
}

TEST_F(HubWireSend, TheHubsOwnHandlersHearWhatItsClientPublishes) {
    Collected<Origin> origins;
    node.hub.subscribe_pattern(
        "other",
        [origins](std::string const&, Bytes const&, Origin const& origin) { origins.add(origin); },
        "");
    client->publish("other", bytes_of("x"));
    EXPECT_EQ(origins.all(), std::vector<Origin>{Origin(0, 500)});
    client->send(200, "other", bytes_of("y"));
    EXPECT_EQ(origins.size(), 2u);
    client->send(9, "other", bytes_of("z"));
    EXPECT_EQ(origins.size(), 2u);
}

TEST_F(HubWireSend, AHubDoesNotHearItselfButItsClientsDo) {
    Collected<Bytes> heard;
    node.hub.subscribe_pattern(
        "topic",
        [heard](std::string const&, Bytes const& payload, Origin const&) { heard.add(payload); },
        "");
    node.hub.publish_event("topic", bytes_of("own"));
    EXPECT_EQ(heard_by_client.size(), 1u);
    client->publish("topic", bytes_of("marker"));
    EXPECT_EQ(heard.all(), std::vector<Bytes>{bytes_of("marker")});
    EXPECT_EQ(heard_by_client.size(), 1u);
}

struct Compression : HubWireSend {
    Compression() { node.hub.set_compression_enabled(true); }
};

TEST_F(Compression, StartsAbove1024Bytes) {
    node.hub.publish_event("topic", Bytes(1024));
    node.hub.publish_event("topic", Bytes(1025));
    auto const frames = events(2);
    EXPECT_EQ(frames[0].frag_flags, 0);
    EXPECT_EQ(frames[0].data.size(), 1024u);
    EXPECT_EQ(frames[1].frag_flags, 4);
    EXPECT_EQ(frames[1].frag_index, 0);
    EXPECT_EQ(frames[1].uncompressed_size, 1025u);
    EXPECT_EQ(
        proto::compression::decompress_payload(frames[1].data.data(), frames[1].data.size(), 1025),
        Bytes(1025));
}

TEST_F(Compression, IsLeftOutWhereItDoesNotHelp) {
    Bytes const noise = pattern_bytes(2000);
    node.hub.publish_event("topic", noise);
    auto const frames = events(1);
    EXPECT_EQ(frames[0].frag_flags, 0);
    EXPECT_EQ(frames[0].data, noise);
}

TEST_F(Compression, ClientsOfThisProcessGetThePlainPayload) {
    node.hub.publish_event("topic", Bytes(5000, 7));
    EXPECT_EQ(heard_by_client.all(), std::vector<Bytes>{Bytes(5000, 7)});
}

TEST_F(Compression, EachFragmentTellsTheWholeSize) {
    Bytes payload = pattern_bytes(20'000);
    payload.resize(40'000);
    node.hub.publish_event("topic", payload);
    HubNode receiver(bus, 201);
    receiver.join();
    auto const frames = events(2);
    for (WireFrame const& frame : frames) {
        EXPECT_EQ(frame.uncompressed_size, 40'000u);
        EXPECT_EQ(frame.frag_flags & ~K_FRAG_FLAG_LAST, 5);
    }
}

TEST_F(Compression, ALargeMessageArrivesAsItWas) {
    HubNode receiver(bus, 201);
    Collected<Bytes> heard;
    receiver.join();
    receiver.hub.subscribe_pattern(
        "topic",
        [heard](std::string const&, Bytes const& payload, Origin const&) { heard.add(payload); },
        "");
    Bytes payload = pattern_bytes(100'000);
    payload.resize(Hub::K_MAX_MESSAGE_SIZE);
    node.hub.publish_event("topic", payload);
    ASSERT_TRUE(heard.wait_for(1, "the message has come"));
    EXPECT_EQ(heard.all().front(), payload);
}

} // namespace
} // namespace tessaron::bus
