#include "libraries/compression/zlibCompression/payload_compression.hpp"
#include "libraries/crc/crcSoft/CrcSoft.hpp"
#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tuple>

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
using testing::ElementsAre;
using testing::IsEmpty;

struct HubDispatch : testing::Test {
    HubDispatch() {
        peer.join();
        node.join();
        node.hub.subscribe_pattern(
            "topic",
            [this](std::string const&, Bytes const& payload, Origin const&) { heard.add(payload); },
            "");
    }

    WireFrame event(std::uint32_t dest = Hub::BROADCAST_ADDRESS) {
        WireFrame header;
        header.type = MessageType::EVENT;
        header.dest = dest;
        header.msg_id = ++last_id;
        header.topic_id = topic_hash("topic");
        return header;
    }
    void send_fragment(WireFrame header, std::uint16_t index, bool last, Bytes const& data) {
        header.frag_index = index;
        header.frag_flags = static_cast<std::uint8_t>(header.frag_flags | (last ? 3 : 1));
        peer.send(header, data);
    }
    void send_marker() { peer.send(event(), bytes_of("marker")); }
    /// All that came before a marker that is sent now.
    std::vector<Bytes> heard_until_now() {
        Bytes const marker = bytes_of("marker");
        auto const count = [&] {
            auto const all = heard.all();
            return std::count(all.begin(), all.end(), marker);
        };
        auto const before = count();
        send_marker();
        test::wait_until([&] { return count() > before; }, "the marker has come");
        auto all = heard.all();
        all.pop_back();
        return all;
    }

    static std::vector<LoopbackBus::Datagram> unharmed(LoopbackBus::Datagram datagram) {
        return {std::move(datagram)};
    }
    void tamper_with(LoopbackBus::Tamper function) {
        tamper = std::move(function);
        bus.set_tamper(tamper);
    }
    /// So that its queue loses nothing on top of what the bus does.
    void let_node_catch_up() {
        bus.wait_until_delivered();
        bus.set_tamper(unharmed);
        // The first one may still be eaten by a frame that was cut short.
        peer.send(event(), bytes_of("sacrifice"));
        std::ignore = heard_until_now();
        bus.set_tamper(tamper);
    }
    /// All but the markers.
    std::vector<Bytes> heard_messages() const {
        auto all = heard.all();
        std::erase(all, bytes_of("sacrifice"));
        std::erase(all, bytes_of("marker"));
        return all;
    }

    LoopbackBus bus;
    LoopbackBus::Tamper tamper;
    RawNode peer{bus, 9};
    HubNode node{bus, 200};
    Collected<Bytes> heard;
    std::uint32_t last_id = 0;
};

/// Sends a frame as it would be with another version in it.
void send_with_version(HubDispatch& test, std::uint8_t version) {
    test.peer.send(test.event(), bytes_of("x"));
    test.bus.wait_until_delivered();
    auto datagram = test.bus.sent().back();
    datagram[4] = version;
    auto const crc = proto::CrcSoft().calc({datagram.data() + 4, datagram.size() - 6});
    datagram[datagram.size() - 2] = static_cast<std::uint8_t>(crc >> 8);
    datagram[datagram.size() - 1] = static_cast<std::uint8_t>(crc);
    test.bus.send(datagram);
}

TEST_F(HubDispatch, AnotherVersionIsCountedDroppedAndToldOnce) {
    send_with_version(*this, 3);
    send_with_version(*this, 1);
    ASSERT_TRUE(test::wait_until([&] { return node.hub.version_mismatch_drops() == 2; },
                                 "both have been counted"));
    EXPECT_THAT(
        node.warnings.all(),
        ElementsAre("[bus] PROTOCOL_VERSION mismatch: received frame with version=3, this side "
                    "runs version=2 - frame dropped (silently, before this warning: see "
                    "version_mismatch_drops() for the running total). Usually means the two sides "
                    "were built against different protolib versions."));
    EXPECT_EQ(heard_until_now().size(), 2u); // Those with the right version only.
}

TEST_F(HubDispatch, FragmentsThatComeLastFirstMakeTheMessage) {
    Bytes const payload = pattern_bytes(10'000);
    WireFrame const header = event();
    for (int index = 2; index >= 0; --index) {
        auto const begin = payload.begin() + index * 4014;
        send_fragment(header, static_cast<std::uint16_t>(index), index == 2,
                      {begin, index == 2 ? payload.end() : begin + 4014});
    }
    EXPECT_THAT(heard_until_now(), ElementsAre(payload));
}

TEST_F(HubDispatch, AFragmentThatComesTwiceDoesNoHarm) {
    WireFrame const header = event();
    send_fragment(header, 0, false, bytes_of("ab"));
    send_fragment(header, 0, false, bytes_of("ab"));
    send_fragment(header, 1, true, bytes_of("cd"));
    EXPECT_THAT(heard_until_now(), ElementsAre(bytes_of("abcd")));
}

TEST_F(HubDispatch, AMessageThatMissesAFragmentIsNeverDelivered) {
    WireFrame const header = event();
    send_fragment(header, 0, false, bytes_of("ab"));
    send_fragment(header, 2, true, bytes_of("ef"));
    EXPECT_THAT(heard_until_now(), IsEmpty());
}

TEST_F(HubDispatch, FragmentsOfTwoMessagesMayMix) {
    WireFrame const first = event();
    WireFrame const second = event();
    send_fragment(first, 0, false, bytes_of("a"));
    send_fragment(second, 0, false, bytes_of("1"));
    send_fragment(second, 1, true, bytes_of("2"));
    send_fragment(first, 1, true, bytes_of("b"));
    EXPECT_THAT(heard_until_now(), ElementsAre(bytes_of("12"), bytes_of("ab")));
}

TEST_F(HubDispatch, ACompressedFrameIsUnpacked) {
    Bytes const payload(3000, 5);
    WireFrame header = event();
    header.frag_flags = K_FRAG_FLAG_COMPRESSED;
    header.uncompressed_size = 3000;
    peer.send(header, *proto::compression::compress_payload(payload));
    EXPECT_THAT(heard_until_now(), ElementsAre(payload));
}

TEST_F(HubDispatch, ACompressedFrameWithAnImpossibleSizeIsDropped) {
    auto const packed = *proto::compression::compress_payload(Bytes(3000, 5));
    for (std::uint32_t const size : {0u, 2999u, 3001u, 1048577u, 0xFFFFFFFFu}) {
        WireFrame header = event();
        header.frag_flags = K_FRAG_FLAG_COMPRESSED;
        header.uncompressed_size = size;
        peer.send(header, packed);
    }
    EXPECT_THAT(heard_until_now(), IsEmpty());
}

TEST_F(HubDispatch, ACompressedFrameThatIsNoStreamIsDropped) {
    WireFrame header = event();
    header.frag_flags = K_FRAG_FLAG_COMPRESSED;
    header.uncompressed_size = 100;
    peer.send(header, pattern_bytes(50));
    peer.send(header, {});
    EXPECT_THAT(heard_until_now(), IsEmpty());
}

TEST_F(HubDispatch, WhatIsForAClientIsNotForTheHubsOwnHandlers) {
    Collected<Bytes> by_client;
    auto const client = node.hub.connect(500, proto::bus::make_identity("c", "hub-test", 1));
    client->subscribe("topic", [by_client](std::string const&, Bytes const& payload,
                                           std::uint32_t) { by_client.add(payload); });
    peer.send(event(500), bytes_of("for the client"));
    ASSERT_TRUE(by_client.wait_for(1, "the client has it"));
    EXPECT_THAT(heard_until_now(), IsEmpty());
}

TEST_F(HubDispatch, TheDomainIsASecondAddress) {
    Collected<Bytes> by_other;
    HubNode other(bus, 300, "other", test::hub_settings(77));
    other.join();
    other.hub.subscribe_pattern(
        "topic",
        [by_other](std::string const&, Bytes const& payload, Origin const&) {
            by_other.add(payload);
        },
        "");
    peer.send(event(77), bytes_of("for the domain"));
    peer.send(event(300), bytes_of("for the node"));
    ASSERT_TRUE(by_other.wait_for(2, "both have come"));
    EXPECT_THAT(heard_until_now(), IsEmpty());
}

TEST_F(HubDispatch, AnEventWithoutAnOriginComesFromTheSource) {
    Collected<Origin> origins;
    node.hub.subscribe_pattern(
        "other",
        [origins](std::string const&, Bytes const&, Origin const& origin) { origins.add(origin); },
        "");
    WireFrame header = event();
    header.topic_id = topic_hash("other");
    peer.send(header, {});
    header.origin = Origin(5, 6);
    peer.send(header, {});
    ASSERT_TRUE(origins.wait_for(2, "both have come"));
    EXPECT_THAT(origins.all(), ElementsAre(Origin(0, 9), Origin(5, 6)));
}

TEST_F(HubDispatch, CorruptionNeverDeliversADamagedMessage) {
    Bytes const payload = pattern_bytes(1000);
    std::uint32_t state = 1;
    tamper_with([&state](LoopbackBus::Datagram datagram) {
        state = state * 1664525U + 1013904223U;
        if ((state >> 28) != 0) {
            datagram[(state >> 8) % datagram.size()] ^= static_cast<std::uint8_t>(1 + state % 255);
        }
        if ((state >> 28) == 3) {
            datagram.resize(datagram.size() / 2);
        }
        return std::vector<LoopbackBus::Datagram>{std::move(datagram)};
    });
    for (int i = 0; i < 2000; ++i) {
        peer.send(event(), payload);
        if (i % 50 == 0) {
            let_node_catch_up();
        }
    }
    let_node_catch_up();
    tamper_with(unharmed);
    auto const arrived = heard_messages();
    EXPECT_GE(arrived.size(), 10u);
    EXPECT_EQ(std::count(arrived.begin(), arrived.end(), payload),
              static_cast<std::ptrdiff_t>(arrived.size()));
}

TEST_F(HubDispatch, LossDuplicationAndReorderingDeliverOnlyWholeMessages) {
    std::uint32_t state = 7;
    std::vector<LoopbackBus::Datagram> held;
    tamper_with([&](LoopbackBus::Datagram datagram) {
        state = state * 1664525U + 1013904223U;
        std::vector<LoopbackBus::Datagram> arriving;
        switch (state >> 29) {
        case 0: // Lost one in thirty-two.
            if (((state >> 27) & 3) != 0) {
                arriving.push_back(std::move(datagram));
            }
            break;
        case 1:
            arriving = {datagram, datagram};
            break;
        case 2:
            held.push_back(std::move(datagram));
            break;
        default:
            arriving.push_back(std::move(datagram));
            std::swap(arriving, held);
            arriving.insert(arriving.begin(), held.begin(), held.end());
            held.clear();
        }
        return arriving;
    });
    std::vector<Bytes> sent;
    for (unsigned i = 0; i < 200; ++i) {
        sent.push_back(pattern_bytes(9'000, i));
        WireFrame const header = event();
        for (std::uint16_t index = 0; index < 3; ++index) {
            auto const begin = sent.back().begin() + index * 4014;
            send_fragment(header, index, index == 2,
                          {begin, index == 2 ? sent.back().end() : begin + 4014});
        }
        if (i % 10 == 0) {
            let_node_catch_up();
        }
    }
    let_node_catch_up();
    tamper_with(unharmed);
    auto const arrived = heard_messages();
    EXPECT_GE(arrived.size(), 100u);
    for (Bytes const& message : arrived) {
        EXPECT_NE(std::find(sent.begin(), sent.end(), message), sent.end());
    }
}

} // namespace
} // namespace tessaron::bus
