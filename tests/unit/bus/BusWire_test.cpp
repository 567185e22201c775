#include "bus/BusWire.hpp"

#include "tests/support/bus_nodes.hpp"

#include <gtest/gtest.h>

namespace tessaron::bus {
namespace {

using test::Bytes;
using test::bytes_of;
using test::LoopbackBus;
using test::MessageType;
using test::Origin;
using test::RawNode;

struct WirePair {
    WirePair() {
        sender.join();
        receiver.join();
    }

    WireFrame pass(WireFrame const& header, Bytes const& payload) {
        sender.send(header, payload);
        receiver.frames.wait_for(1, "the frame has come");
        return receiver.frames.all().back();
    }
    /// Of the frame, without prefix, payload and CRC.
    Bytes header_bytes(std::size_t payload_size) const {
        Bytes const datagram = bus.sent().back();
        return {datagram.begin() + 4,
                datagram.end() - 2 - static_cast<std::ptrdiff_t>(payload_size)};
    }

    LoopbackBus bus;
    RawNode sender{bus, 0x0102};
    RawNode receiver{bus, 7};
};

/// A transport that tells what it was told may be left out, as the source that is meant.
class LeavingOut final : public proto::interface::IInterface {
public:
    LeavingOut() : IInterface("leaving out") {}
    bool write(CustomSpan<unsigned char>, std::chrono::milliseconds) override { return true; }
    bool is_open() override { return true; }
    bool open() override { return true; }
    bool close() override { return true; }
    long read(unsigned char*, unsigned long) override { return -1; }
    void set_unwanted(std::vector<proto::interface::ByteAt> const& bytes) override {
        Bytes frame(10);
        for (auto const& [offset, value] : bytes) {
            frame.at(offset) = value;
        }
        unwanted = bytes.empty() ? Bytes() : frame;
    }

    Bytes unwanted;
};

TEST(BusWire, LetsItsTransportLeaveOutTheFramesThatItsParserDrops) {
    Bytes rx(8192);
    Bytes tx(8192);
    LeavingOut first;
    LeavingOut second;
    BusWire wire({rx.data(), rx.size()}, {tx.data(), tx.size()}, [](ReceivedFrame&&) {});
    wire.set_source(0x0102);
    wire.set_interfaces(first, first);
    Bytes const from_0102{0xB0, 0x55, 0xB0, 0x55, 0, 0, 0, 0, 0x02, 0x01};
    EXPECT_EQ(first.unwanted, from_0102);
    wire.set_contested_source(0x0103); // Its own are to be heard.
    EXPECT_EQ(first.unwanted, Bytes());
    wire.set_source(0x0102);
    wire.set_interfaces(second, second);
    EXPECT_EQ(first.unwanted, Bytes());
    EXPECT_EQ(second.unwanted, from_0102);
    wire.stop();
    EXPECT_EQ(second.unwanted, Bytes());
}

TEST(BusWire, DiscoveryRequestIsTheSmallestFrame) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::DISCOVERY_REQUEST;
    header.dest = 0xFFFFFFFF;
    pair.pass(header, {});
    EXPECT_EQ(pair.bus.sent().back(),
              Bytes({0xB0, 0x55, 0xB0, 0x55, 0x02, 0x20, 0x00, 0x00, 0x02, 0x01,
                     0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x0C, 0x00, 0x23, 0xB1}));
}

TEST(BusWire, AllOptionsCross) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::RESPONSE;
    header.dest = 0x01020304;
    header.msg_id = 0xA1A2A3A4;
    header.frag_index = 0x0506;
    header.frag_flags = 7;
    header.ttl = 3;
    header.origin = Origin(0xB1B2B3B4, 0xC1C2);
    header.topic_id = 0x0FCE;
    header.uncompressed_size = 0xD1D2D3D4;
    WireFrame expected = header;
    expected.source = 0x0102;
    expected.data = bytes_of("hello");
    EXPECT_EQ(pair.pass(header, bytes_of("hello")), expected);
    EXPECT_EQ(pair.bus.sent().back().size(), 4u + 6 + 22 + 4 + 2 + 5 + 2);
}

TEST(BusWire, OptionsThatSayNothingStayOffTheWire) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::SUBSCRIBE_REQUEST;
    header.dest = 7;
    header.msg_id = 99;            // Not of a type that has one.
    header.frag_index = 5;         // No fragment.
    header.uncompressed_size = 12; // Not compressed.
    WireFrame const received = pair.pass(header, bytes_of("x"));
    EXPECT_EQ(pair.header_bytes(1), Bytes({2, 0x10, 0, 0, 0x02, 0x01, 0, 0, 7, 0, 0, 0, 13, 0}));
    EXPECT_EQ(received.msg_id, 0u);
    EXPECT_EQ(received.frag_index, 0u);
    EXPECT_EQ(received.ttl, 8);
    EXPECT_EQ(received.uncompressed_size, 0u);
    EXPECT_EQ(received.origin, std::nullopt);
}

TEST(BusWire, MessageIdStandsInEventsEvenWhenItIsZero) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::EVENT;
    pair.pass(header, {});
    EXPECT_EQ(pair.header_bytes(0),
              Bytes({2, 0x30, 0, 0, 0x02, 0x01, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 0}));
}

TEST(BusWire, TtlZeroStandsOnTheWire) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::DISCOVERY_RESPONSE;
    header.ttl = 0;
    EXPECT_EQ(pair.pass(header, {}).ttl, 0);
}

TEST(BusWire, EmptyPayloadIsDataAndADiscoveryRequestHasNone) {
    LoopbackBus bus;
    test::FrameBuffers buffers;
    test::Collected<bool> has_data;
    BusWire wire(buffers.rx_span(), buffers.tx_span(),
                 [&](ReceivedFrame&& received) { has_data.add(received.has_data); });
    auto& port = bus.add_port();
    wire.set_interfaces(port, port);
    RawNode sender(bus, 3);
    sender.join();
    WireFrame header;
    header.type = MessageType::EVENT;
    sender.send(header, {});
    header.type = MessageType::DISCOVERY_REQUEST;
    sender.send(header, {});
    ASSERT_TRUE(has_data.wait_for(2, "both frames have come"));
    EXPECT_EQ(has_data.all(), (std::vector<bool>{true, false}));
    wire.stop();
}

TEST(BusWire, OwnFramesAreDroppedUnlessTheAddressIsContested) {
    WirePair pair;
    WireFrame header;
    header.type = MessageType::EVENT;
    header.msg_id = 1;
    pair.sender.send(header, {}); // Not heard by itself.
    pair.bus.wait_until_delivered();
    pair.sender.wire.set_contested_source(0x0102);
    header.msg_id = 2;
    pair.sender.send(header, {});
    ASSERT_TRUE(pair.sender.frames.wait_for(1, "the sender hears itself"));
    EXPECT_EQ(pair.sender.frames.all().front().msg_id, 2u);
    EXPECT_EQ(pair.sender.frames.all().front().source, 0x0102u);
}

TEST(BusWire, ChannelsOutsideTheRangeAreNotHeard) {
    LoopbackBus bus;
    RawNode receiver(bus, 7);
    receiver.wire.set_channel(2, 3);
    receiver.join();
    WireFrame header;
    header.type = MessageType::EVENT;
    for (std::uint16_t channel = 1; channel <= 4; ++channel) {
        RawNode sender(bus, channel);
        sender.wire.set_channel(channel, channel);
        sender.join();
        sender.send(header, {});
        bus.wait_until_delivered();
    }
    ASSERT_TRUE(receiver.frames.wait_for(2, "both channels have been heard"));
    EXPECT_EQ(receiver.frames.all()[0].source, 2u);
    EXPECT_EQ(receiver.frames.all()[1].source, 3u);
}

} // namespace
} // namespace tessaron::bus
