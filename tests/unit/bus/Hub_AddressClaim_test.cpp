#include "tests/support/bus_nodes.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace tessaron::bus {
namespace {

using test::claim_settings;
using test::hub_settings;
using test::HubNode;
using test::K_CLAIM_WINDOW;
using test::LoopbackBus;
using test::MessageType;
using test::RawNode;
using testing::ElementsAre;
using testing::IsEmpty;

/// Answers who has an address, as often as asked.
class Holder {
public:
    Holder(LoopbackBus& bus, std::uint32_t address, std::string name)
        : node(bus, address), name_(std::move(name)) {
        node.on_frame = [this](WireFrame const& frame) {
            if (frame.type == MessageType::DISCOVERY_REQUEST) {
                node.announce(name_, content_);
            }
        };
    }

    Holder& hosting(std::uint32_t address) {
        content_.modules.push_back({address, "module", {}});
        return *this;
    }
    void join() { node.join(); }

    RawNode node;

private:
    std::string const name_;
    proto::bus::TopicsAndRoles content_;
};

TEST(HubAddressClaim, AloneItTakesTwoWindowsAndWarnsOfNothing) {
    LoopbackBus bus;
    HubNode node(bus, 200, "abc", claim_settings());
    EXPECT_FALSE(node.hub.is_ready());
    auto const begin = std::chrono::steady_clock::now();
    node.join();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2 * K_CLAIM_WINDOW);
    EXPECT_TRUE(node.hub.is_ready());
    EXPECT_EQ(node.hub.address(), 200u);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST(HubAddressClaim, AsksWithoutAnAddressAndThenAnnouncesItself) {
    LoopbackBus bus;
    RawNode listener(bus, 9);
    listener.join();
    HubNode node(bus, 200);
    node.join();
    ASSERT_TRUE(listener.frames.wait_for(2, "question and announcement have come"));
    auto const frames = listener.frames.all();
    EXPECT_EQ(frames[0].type, MessageType::DISCOVERY_REQUEST);
    EXPECT_EQ(frames[0].source, 0xFFFFu);
    EXPECT_EQ(frames[0].dest, Hub::BROADCAST_ADDRESS);
    EXPECT_EQ(frames[1].type, MessageType::DISCOVERY_RESPONSE);
    EXPECT_EQ(frames[1].source, 200u);
    EXPECT_EQ(frames[1].dest, Hub::BROADCAST_ADDRESS);
}

TEST(HubAddressClaim, AnAddressInUseIsLeftToWhoeverHasIt) {
    LoopbackBus bus;
    Holder holder(bus, 200, "other");
    holder.join();
    HubNode node(bus, 200, "abc", claim_settings());
    node.join();
    EXPECT_NE(node.hub.address(), 200u);
    EXPECT_GE(node.hub.address(), 1u);
    EXPECT_LE(node.hub.address(), 65533u);
    EXPECT_THAT(node.warnings.all(),
                ElementsAre("[bus] WARNING: address 200 already in use on this bus (probe 1/8) - "
                            "retrying with an alternate address"));
}

TEST(HubAddressClaim, WithoutAnAddressItAnswersNoRequests) {
    LoopbackBus bus;
    RawNode asker(bus, 9);
    asker.on_frame = [&asker](WireFrame const& frame) {
        bool const has_address = frame.source != (Hub::BROADCAST_ADDRESS & 0xFFFF);
        if (frame.type == MessageType::DISCOVERY_REQUEST && !has_address) {
            asker.send(MessageType::REQUEST, Hub::BROADCAST_ADDRESS, {}, "topic", 77);
            asker.send(MessageType::REQUEST, 200, {}, "topic", 77);
        }
    };
    asker.join();
    HubNode node(bus, 200, "abc", claim_settings());
    node.hub.serve(
        "topic", [](auto const&) { return test::Bytes{1}; }, "");
    node.join();
    asker.send(MessageType::REQUEST, 200, {}, "topic", 78);
    asker.wait_for(MessageType::RESPONSE, 1, "the node answers");
    auto const answers = asker.heard(MessageType::RESPONSE);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers.front().msg_id, 78U);
}

TEST(HubAddressClaim, TheFirstAlternateIsTheSameAtEveryStart) {
    std::set<std::uint32_t> addresses;
    for (int start = 0; start < 2; ++start) {
        LoopbackBus bus;
        Holder holder(bus, 200, "other");
        holder.join();
        HubNode node(bus, 200, "abc", claim_settings());
        addresses.insert(node.join().hub.address());
    }
    EXPECT_EQ(addresses.size(), 1u);
}

TEST(HubAddressClaim, AnAddressOfAHostedClientIsInUseToo) {
    LoopbackBus bus;
    Holder holder(bus, 300, "other");
    holder.hosting(200).join();
    HubNode node(bus, 200, "abc", claim_settings());
    node.join();
    EXPECT_NE(node.hub.address(), 200u);
    EXPECT_EQ(node.warnings.size(), 1u);
}

TEST(HubAddressClaim, TwoHubsSettleByAsking) {
    LoopbackBus bus;
    HubNode first(bus, 200, "first", claim_settings());
    first.join();
    HubNode second(bus, 200, "second", claim_settings());
    second.join();
    EXPECT_EQ(first.hub.address(), 200u);
    EXPECT_NE(second.hub.address(), 200u);
    EXPECT_THAT(first.warnings.all(), IsEmpty());
}

TEST(HubAddressClaim, AReservedAddressIsNeverUsed) {
    for (std::uint32_t const reserved : {0xFFFFFFFEU, 0xFFFFFFFFU}) {
        LoopbackBus bus;
        HubNode node(bus, reserved);
        node.join();
        EXPECT_GE(node.hub.address(), 1u);
        EXPECT_LE(node.hub.address(), 65533u);
        EXPECT_THAT(node.warnings.all(), IsEmpty());
    }
}

TEST(HubAddressClaim, WhoWasHeardBeforeTheQuestionDoesNotCount) {
    LoopbackBus bus;
    HubNode node(bus, 200, "abc");
    node.join();
    RawNode silent(bus, 300);
    silent.join();
    proto::bus::TopicsAndRoles content;
    content.modules.push_back({200, "earlier", {}});
    silent.announce("silent", content);
    ASSERT_TRUE(test::wait_until([&] { return node.hub.discovered_devices().contains(300); },
                                 "the claim was heard"));
    node.join();
    EXPECT_EQ(node.hub.address(), 200u);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST(HubAddressClaim, ATwinThatAnnouncesInTheSameInstantIsHeard) {
    LoopbackBus bus;
    RawNode twin(bus, 200);
    std::atomic<int> announcements{0};
    // Says nothing when asked, but takes the address in the moment in which the hub takes it.
    RawNode trigger(bus, 9);
    trigger.on_frame = [&](WireFrame const& frame) {
        if (frame.type == MessageType::DISCOVERY_RESPONSE && frame.source == 200 &&
            announcements++ == 0) {
            twin.announce("abc");
        }
    };
    trigger.join();
    twin.join();
    HubNode node(bus, 200, "abc", claim_settings());
    node.join();
    EXPECT_NE(node.hub.address(), 200u);
    EXPECT_THAT(node.warnings.all(),
                ElementsAre("[bus] WARNING: address 200 was claimed by another device at the same "
                            "instant, right after announcing (probe 1/8) - retrying with an "
                            "alternate address"));
}

TEST(HubAddressClaim, ItsOwnAnnouncementThatComesBackTwiceIsNoTwin) {
    LoopbackBus bus;
    bus.set_tamper([](LoopbackBus::Datagram datagram) {
        return std::vector<LoopbackBus::Datagram>{datagram, datagram};
    });
    HubNode node(bus, 200, "abc", claim_settings());
    node.join();
    EXPECT_EQ(node.hub.address(), 200u);
    EXPECT_THAT(node.warnings.all(), IsEmpty());
}

TEST(HubAddressClaim, AfterEightAttemptsItTakesWhatItHas) {
    LoopbackBus bus;
    RawNode jealous(bus, 9);
    // Claims every address that the hub announces, as a client of its own.
    jealous.on_frame = [&](WireFrame const& frame) {
        if (frame.type == MessageType::DISCOVERY_RESPONSE) {
            proto::bus::TopicsAndRoles content;
            content.modules.push_back({frame.source, "mine", {}});
            jealous.announce("jealous", content);
        }
    };
    jealous.join();
    Hub::Settings settings = hub_settings();
    settings.address_probe_window = std::chrono::milliseconds(100);
    HubNode node(bus, 200, "abc", settings);
    node.join();
    auto const warnings = node.warnings.all();
    ASSERT_EQ(warnings.size(), 9u);
    EXPECT_THAT(warnings[7], testing::HasSubstr("(probe 8/8)"));
    EXPECT_EQ(warnings[8],
              "[bus] WARNING: giving up after 8 probe attempts - committing to address " +
                  std::to_string(node.hub.address()) +
                  " even though it still appears to be in use; this Hub and another device may "
                  "now both answer to the same address");
    EXPECT_TRUE(node.hub.is_ready());
}

TEST(HubAddressClaim, TwentyTwinsStartedAtOnceEndWithAddressesOfTheirOwn) {
    LoopbackBus bus;
    // Their threads share the machine's processors, and all must have answered within a window.
    Hub::Settings settings = claim_settings();
    settings.address_probe_window = std::chrono::milliseconds(500);
    std::vector<std::unique_ptr<HubNode>> nodes;
    for (int i = 0; i < 20; ++i) {
        nodes.push_back(std::make_unique<HubNode>(bus, 200, "abc", settings));
    }
    std::vector<std::thread> starts;
    for (auto const& node : nodes) {
        starts.emplace_back([&node] { node->join(); });
    }
    for (std::thread& start : starts) {
        start.join();
    }
    std::set<std::uint32_t> addresses;
    for (auto const& node : nodes) {
        EXPECT_TRUE(node->hub.is_ready());
        addresses.insert(node->hub.address());
        for (std::string const& warning : node->warnings.all()) {
            EXPECT_THAT(
                warning,
                testing::MatchesRegex(
                    "\\[bus\\] WARNING: (address [0-9]+ (already in use on this bus|was claimed by "
                    "another device at the same instant, right after announcing) \\(probe "
                    "[1-8]/8\\)"
                    " - retrying with an alternate address|name 'abc' already in use on this bus - "
                    "renamed to 'abc[2-9]'|name 'abc' already in use on this bus, and every "
                    "auto-suffix up to 'abc9' is ALSO taken - keeping the colliding name; two "
                    "devices will now answer to the same name)"));
        }
    }
    EXPECT_EQ(addresses.size(), nodes.size());
}

struct NameCase {
    std::vector<std::string> taken;
    std::string name;
    std::string result;
    std::vector<std::string> warnings;
};

class HubName : public testing::TestWithParam<NameCase> {};

TEST_P(HubName, IsMadeUniqueWhereItCanBe) {
    LoopbackBus bus;
    std::vector<std::unique_ptr<Holder>> holders;
    for (std::string const& name : GetParam().taken) {
        holders.push_back(
            std::make_unique<Holder>(bus, static_cast<std::uint32_t>(300 + holders.size()), name));
        holders.back()->join();
    }
    HubNode node(bus, 200, GetParam().name, claim_settings());
    node.join();
    EXPECT_EQ(node.name(), GetParam().result);
    EXPECT_EQ(node.warnings.all(), GetParam().warnings);
}

std::string const K_NAME_49(49, 'n');

std::string renamed(std::string const& from, std::string const& to) {
    return "[bus] WARNING: name '" + from + "' already in use on this bus - renamed to '" + to +
           "'";
}

INSTANTIATE_TEST_SUITE_P(
    All, HubName,
    testing::Values(
        NameCase{{"ab", "abcd"}, "abc", "abc", {}}, NameCase{{""}, "", "", {}},
        NameCase{{"abc"}, "abc", "abc2", {renamed("abc", "abc2")}},
        NameCase{{"abc", "abc2", "abc4"}, "abc", "abc3", {renamed("abc", "abc3")}},
        NameCase{{"abc", "abc2", "abc3", "abc4", "abc5", "abc6", "abc7", "abc8"},
                 "abc",
                 "abc9",
                 {renamed("abc", "abc9")}},
        NameCase{{"abc", "abc2", "abc3", "abc4", "abc5", "abc6", "abc7", "abc8", "abc9"},
                 "abc",
                 "abc",
                 {"[bus] WARNING: name 'abc' already in use on this bus, and every auto-suffix up "
                  "to 'abc9' is ALSO taken - keeping the colliding name; two devices will now "
                  "answer to the same name"}},
        NameCase{{K_NAME_49}, K_NAME_49, K_NAME_49 + "2", {renamed(K_NAME_49, K_NAME_49 + "2")}}));

TEST(HubName, OfFiftyBytesLosesItsLastByteToTheDigit) {
    LoopbackBus bus;
    std::string const name(50, 'n');
    proto::bus::NodeIdentity identity = proto::bus::make_identity("", "hub-test", 1);
    std::copy(name.begin(), name.end(), identity.name);
    RawNode holder(bus, 300);
    holder.on_frame = [&](WireFrame const& frame) {
        if (frame.type == MessageType::DISCOVERY_REQUEST) {
            WireFrame header;
            header.type = MessageType::DISCOVERY_RESPONSE;
            header.dest = Hub::BROADCAST_ADDRESS;
            holder.send(header, proto::bus::encode_identity(identity));
        }
    };
    holder.join();
    test::FrameBuffers buffers;
    auto& port = bus.add_port();
    Hub hub(buffers.rx_span(), buffers.tx_span(), 200, identity, claim_settings());
    hub.set_interfaces(port, port);
    EXPECT_EQ(std::string(hub.identity_snapshot().name, 50), std::string(49, 'n') + "2");
}

} // namespace
} // namespace tessaron::bus
