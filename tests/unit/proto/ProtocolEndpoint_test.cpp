#include "proto/ProtocolEndpoint.hpp"

#include "tests/support/wait_until.hpp"
#include "tests/unit/proto/BusReceiver.hpp"
#include "tests/unit/proto/Gate.hpp"
#include "tests/unit/proto/RecordingInterface.hpp"

#include <algorithm>
#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

namespace proto::test {

namespace {

using tessaron::test::wait_until;
using testing::ElementsAre;

/// A node: an endpoint with its buffers, on a transport of its own.
class Node {
public:
    explicit Node(std::uint64_t address) {
        endpoint.set_source_match_value(address);
        endpoint.set_receive_callback([this](BusEndpoint::Frame&& frame) {
            frames_.push_back(to_model(frame));
            ++count_;
        });
        endpoint.set_interfaces(wire, wire);
    }

    unsigned long send(Bytes const& data) {
        unsigned char const type = 0x30;
        unsigned char const version = 2;
        unsigned const dest = 0xFFFFFFFF;
        bus::Options const options;
        return endpoint.send(make_field_info<TYPE_FIELD, unsigned char>(&type),
                             make_field_info<VERSION_FIELD, unsigned char>(&version),
                             make_field_info<DEST_FIELD, unsigned>(&dest),
                             make_field_info<OPT_FIELD, bus::Options>(&options),
                             make_field_info<DATA_FIELD, unsigned char*>(data.data(), data.size()));
    }

    std::vector<FrameModel> const& wait_for(std::size_t count) {
        wait_until([&] { return count_ >= count; }, "the frames are there");
        return frames_;
    }

private:
    Bytes rx_buffer_ = Bytes(bus::MAX_PAYLOAD_SIZE);
    Bytes tx_buffer_ = Bytes(bus::MAX_PAYLOAD_SIZE);
    std::vector<FrameModel> frames_;
    std::atomic<std::size_t> count_{0};

public:
    RecordingInterface wire;
    BusEndpoint endpoint{false, {span_of(rx_buffer_)}, {span_of(tx_buffer_)}};
};

FrameModel frame_with(Bytes data) {
    FrameModel frame;
    frame.data = std::move(data);
    return frame;
}

TEST(ProtocolEndpoint, HandsFramesToItsCallbackInTheirOrder) {
    Node node(1);
    node.wire.deliver(frame_with({1}).bytes());
    node.wire.deliver(frame_with({2}).bytes());
    EXPECT_THAT(node.wait_for(2), ElementsAre(frame_with({1}), frame_with({2})));
}

TEST(ProtocolEndpoint, ACutDatagramTakesNothingOfTheNextOneWithIt) {
    Node node(1);
    node.wire.is_datagram = true;
    Bytes cut = frame_with({1, 2, 3}).bytes();
    while (!cut.empty()) {
        cut.pop_back();
        node.wire.deliver(cut);
        node.wire.deliver(frame_with({4}).bytes());
    }
    std::size_t const count = frame_with({1, 2, 3}).bytes().size();
    EXPECT_THAT(node.wait_for(count), testing::SizeIs(count));
    EXPECT_THAT(node.wait_for(count), testing::Each(frame_with({4})));
}

TEST(ProtocolEndpoint, ADatagramThatEndsLikeAPrefixIsNotItsBeginning) {
    Node node(1);
    node.wire.is_datagram = true;
    node.wire.deliver({0, 0xB0, 0x55});
    node.wire.deliver(frame_with({4}).bytes());
    EXPECT_THAT(node.wait_for(1), ElementsAre(frame_with({4})));
}

TEST(ProtocolEndpoint, APieceOfAStreamGoesOnInTheNextOne) {
    Node node(1);
    for (unsigned char const byte : frame_with({1, 2, 3}).bytes()) {
        node.wire.deliver({byte});
    }
    EXPECT_THAT(node.wait_for(1), ElementsAre(frame_with({1, 2, 3})));
}

TEST(ProtocolEndpoint, TwoOfOneTypeLiveSideBySide) {
    Node a(0x0102);
    Node b(0x0304);
    EXPECT_EQ(a.send({1, 2}), 22U);
    EXPECT_EQ(b.send({3, 4, 5}), 23U);
    FrameModel from_a = frame_with({1, 2});
    FrameModel from_b = frame_with({3, 4, 5});
    from_b.source = 0x0304;
    ASSERT_THAT(a.wire.frames, ElementsAre(from_a.bytes()));
    ASSERT_THAT(b.wire.frames, ElementsAre(from_b.bytes()));
    // Both hear both, half of one frame between the halves of the other: each drops its own.
    for (auto const half : {0, 1}) {
        for (Bytes const& bytes : {a.wire.frames[0], b.wire.frames[0]}) {
            auto const middle = bytes.begin() + 11;
            Bytes const part =
                half == 0 ? Bytes(bytes.begin(), middle) : Bytes(middle, bytes.end());
            (bytes == a.wire.frames[0] ? b : a).wire.deliver(part);
        }
    }
    EXPECT_THAT(a.wait_for(1), ElementsAre(from_b));
    EXPECT_THAT(b.wait_for(1), ElementsAre(from_a));
}

TEST(ProtocolEndpoint, FramesOfSeveralSendersDoNotMix) {
    Node node(0x0102);
    std::vector<std::thread> senders;
    for (unsigned char sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&node, sender] {
            for (int i = 0; i < 100; ++i) {
                node.send(Bytes(sender * 100UL, sender));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_EQ(node.wire.frames.size(), 400U);
    for (unsigned char sender = 0; sender < 4; ++sender) {
        Bytes const expected = frame_with(Bytes(sender * 100UL, sender)).bytes();
        EXPECT_EQ(std::ranges::count(node.wire.frames, expected), 100);
    }
}

TEST(ProtocolEndpoint, LeavesTheCallbackToATransportThatHasAThreadForIt) {
    Node node(1);
    node.wire.takes_follow_ups = true;
    std::vector<std::thread::id> callers;
    node.endpoint.set_receive_callback(
        [&](BusEndpoint::Frame&&) { callers.push_back(std::this_thread::get_id()); });
    node.wire.deliver(frame_with({1}).bytes());
    node.wire.deliver(frame_with({2}).bytes());
    ASSERT_THAT(node.wire.follow_ups, testing::SizeIs(2));
    (*node.wire.follow_ups[0])();
    EXPECT_THAT(callers, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
    (*node.wire.follow_ups[1])(); // Both frames have been handled.
    EXPECT_THAT(callers, testing::SizeIs(2));
}

TEST(ProtocolEndpoint, WhatItLeavesToATransportMayOutliveIt) {
    std::shared_ptr<RecordingInterface::FollowUp const> work;
    {
        Node node(1);
        node.wire.takes_follow_ups = true;
        node.wire.deliver(frame_with({1}).bytes());
        work = node.wire.follow_ups.at(0);
    }
    (*work)(); // There is nothing more to do.
}

TEST(ProtocolEndpoint, ABlockedCallbackCostsTheOldestFrames) {
    Node node(1);
    Gate gate;
    std::vector<Bytes> received;
    std::atomic<std::size_t> count{0};
    node.endpoint.set_receive_callback([&](BusEndpoint::Frame&& frame) {
        gate.pass();
        received.push_back(std::get<Bytes>(meta::get_named<DATA_FIELD>(frame)));
        ++count;
    });
    node.wire.deliver(frame_with({0}).bytes());
    gate.wait_for_visitor();
    for (unsigned char i = 1; i <= 101; ++i) {
        node.wire.deliver(frame_with({i}).bytes());
    }
    gate.open();
    ASSERT_TRUE(wait_until([&] { return count == 101; }, "what was queued has been handled"));
    EXPECT_EQ(received[0], Bytes{0});
    EXPECT_EQ(received[1], Bytes{2}) << "1 was the oldest";
    EXPECT_EQ(received[100], Bytes{101});
}

TEST(ProtocolEndpoint, AfterStopNothingIsHeard) {
    Node node(1);
    node.wire.deliver(frame_with({1}).bytes());
    node.wait_for(1);
    node.endpoint.stop();
    node.wire.deliver(frame_with({2}).bytes());
    node.endpoint.stop();
    EXPECT_THAT(node.wait_for(1), ElementsAre(frame_with({1})));
}

TEST(ProtocolEndpoint, MayGoWhileItsTransportDelivers) {
    RecordingInterface wire;
    std::atomic<bool> done{false};
    std::atomic<unsigned> rounds{0};
    std::thread reader([&] {
        Bytes const bytes = frame_with(Bytes(100, 7)).bytes();
        while (!done) {
            wire.deliver(bytes);
            ++rounds;
        }
    });
    for (int i = 0; i < 20; ++i) {
        auto rx_buffer = std::make_unique<Bytes>(bus::MAX_PAYLOAD_SIZE);
        auto tx_buffer = std::make_unique<Bytes>(bus::MAX_PAYLOAD_SIZE);
        std::atomic<bool> heard{false};
        {
            BusEndpoint endpoint(false, {span_of(*rx_buffer)}, {span_of(*tx_buffer)});
            endpoint.set_receive_callback([&](BusEndpoint::Frame&&) { heard = true; });
            endpoint.set_interfaces(wire, wire);
            wait_until([&] { return heard.load(); }, "a frame is heard");
        }
    }
    done = true;
    reader.join();
    EXPECT_GT(rounds, 0U);
}

TEST(ProtocolEndpoint, OtherInterfacesReplaceTheFormerOnes) {
    RecordingInterface other;
    Node node(1);
    Bytes half = frame_with({1}).bytes();
    half.resize(10);
    node.wire.deliver(half); // What one stream has begun, the other does not end.
    node.endpoint.set_interfaces(other, other);
    node.wire.deliver(frame_with({2}).bytes());
    other.deliver(frame_with({3}).bytes());
    EXPECT_THAT(node.wait_for(1), ElementsAre(frame_with({3})));
    node.send({4});
    EXPECT_TRUE(node.wire.frames.empty());
    EXPECT_EQ(other.frames.size(), 1U);
}

TEST(ProtocolEndpoint, BothDirectionsMayComputeWithACrcOfSomebodyElse) {
    BitwiseCrc const crc;
    Bytes rx_buffer(bus::MAX_PAYLOAD_SIZE);
    Bytes tx_buffer(bus::MAX_PAYLOAD_SIZE);
    RecordingInterface wire;
    Gate delivered;
    ProtocolEndpoint<bus::BusFrame, bus::BusFrame, SharedCrc> endpoint(false, {span_of(rx_buffer)},
                                                                       {span_of(tx_buffer)}, crc);
    endpoint.set_receive_callback([&](auto&&) { delivered.pass(); });
    endpoint.set_interfaces(wire, wire);
    wire.deliver(frame_with({1}).bytes());
    delivered.wait_for_visitor();
    delivered.open();
    unsigned char const type = 0x12;
    EXPECT_EQ(endpoint.send(make_field_info<TYPE_FIELD, unsigned char>(&type)), 20U);
    Bytes const& sent = wire.frames.at(0);
    EXPECT_EQ(crc_of(Bytes(sent.begin(), sent.end() - 2)), Bytes(sent.end() - 2, sent.end()));
}

TEST(ProtocolEndpointDeathTest, AnExceptionOutOfTheCallbackEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Node node(1);
            node.endpoint.set_receive_callback(
                [](BusEndpoint::Frame&&) { throw std::runtime_error("handler failed"); });
            node.wire.deliver(frame_with({1}).bytes());
            Gate().pass();
        },
        "handler failed");
}

} // namespace

} // namespace proto::test
