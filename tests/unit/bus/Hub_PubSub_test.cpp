#include "proto/bus/NodeIdentity.hpp"
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
using test::RawNode;
using test::topic_hash;
using testing::ElementsAre;
using testing::IsEmpty;

using Heard = Collected<std::pair<std::string, Bytes>>;

struct HubPubSub : testing::Test {
    HubPubSub() {
        peer.join();
        publisher.join();
        subscriber.join();
    }

    static void hear(HubNode& node, std::string const& pattern, Heard& heard) {
        node.hub.subscribe_pattern(
            pattern,
            [heard](std::string const& topic, Bytes const& payload, Origin const&) {
                heard.add({topic, payload});
            },
            "description");
    }
    void send_event(std::string const& topic, std::uint32_t msg_id, Bytes const& payload) {
        peer.send(MessageType::EVENT, Hub::BROADCAST_ADDRESS, payload, topic, msg_id);
    }
    Bytes subscription(std::string const& pattern) {
        return proto::bus::encode_identity_and_topic(proto::bus::make_identity("p", "b", 1),
                                                     pattern);
    }
    void ask_for(std::string const& pattern) {
        peer.send(MessageType::SUBSCRIBE_REQUEST, Hub::BROADCAST_ADDRESS, subscription(pattern), "",
                  0);
    }

    LoopbackBus bus;
    RawNode peer{bus, 9};
    HubNode publisher{bus, 200, "publisher"};
    HubNode subscriber{bus, 201, "subscriber"};
};

TEST_F(HubPubSub, AnEnvelopeReachesEverySubscriber) {
    Collected<Envelope> heard;
    Envelope const envelope{{{"key", "value"}}, {1, 2, 3}};
    subscriber.hub.subscribe(
        "topic", [heard](Envelope const& received) { heard.add(received); }, "");
    publisher.hub.publish("topic", envelope);
    ASSERT_TRUE(heard.wait_for(1, "the event has come"));
    EXPECT_EQ(heard.all().front(), envelope);
}

TEST_F(HubPubSub, ASubscriptionIsSaidOnceWithTheIdentity) {
    Heard heard;
    hear(subscriber, "some.*", heard);
    ASSERT_TRUE(peer.wait_for(MessageType::SUBSCRIBE_REQUEST, 1, "the request has come"));
    auto const requests = peer.heard(MessageType::SUBSCRIBE_REQUEST);
    EXPECT_EQ(requests[0].dest, Hub::BROADCAST_ADDRESS);
    EXPECT_EQ(requests[0].topic_id, 0u);
    EXPECT_EQ(requests[0].data,
              proto::bus::encode_identity_and_topic(subscriber.hub.identity_snapshot(), "some.*"));
}

TEST_F(HubPubSub, ALateSubscriberGetsTheRetainedValueAtOnce) {
    publisher.hub.publish("topic", {{{"key", "value"}}, {}});
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 1, "the publication has come"));
    HubNode second(bus, 202, "second");
    second.join();
    Heard heard;
    hear(second, "topic", heard);
    ASSERT_TRUE(heard.wait_for(1, "the retained value has come"));
    EXPECT_EQ(decode_envelope(heard.all().front().second).fields.at("key"), "value");
}

TEST_F(HubPubSub, WhatCameBeforeTheFirstSubscriptionDoesNotMakeTheRetainedValueARepetition) {
    Heard markers;
    hear(subscriber, "marker", markers);
    publisher.hub.publish("topic", {});
    publisher.hub.publish("marker", {});
    ASSERT_TRUE(markers.wait_for(1, "the publication has come, and found no handler"));
    Heard heard;
    hear(subscriber, "topic", heard);
    EXPECT_TRUE(heard.wait_for(1, "the retained value has come"));
}

TEST_F(HubPubSub, ASubscriberThatHeardThePublicationIgnoresItsRetainedCopy) {
    Heard heard;
    hear(subscriber, "topic", heard);
    publisher.hub.publish_event("topic", {1});
    ASSERT_TRUE(heard.wait_for(1, "the publication has come"));
    publisher.hub.advertise("topic", "", proto::bus::TopicKind::EVENT);
    Heard by_pattern;
    hear(subscriber, "top*", by_pattern); // Makes the publisher send it again.
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 2, "the copy has been sent"));
    publisher.hub.publish_event("topic", {2});
    ASSERT_TRUE(by_pattern.wait_for(1, "the next publication has come"));
    EXPECT_THAT(heard.all(),
                ElementsAre(std::pair("topic", Bytes{1}), std::pair("topic", Bytes{2})));
}

TEST_F(HubPubSub, TheRetainedEventHasTheIdOfItsPublication) {
    publisher.hub.publish("topic", {});
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 1, "the publication has come"));
    auto const first = peer.heard(MessageType::EVENT).front();
    ask_for("to*");
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 2, "the retained event has come"));
    auto const again = peer.heard(MessageType::EVENT).back();
    EXPECT_EQ(again.msg_id, first.msg_id);
    EXPECT_EQ(again.data, first.data);
    EXPECT_EQ(again.dest, 9u);
    EXPECT_EQ(again.topic_id, topic_hash("topic"));
    auto const responses = peer.heard(MessageType::SUBSCRIBE_RESPONSE);
    ASSERT_EQ(responses.size(), 1u);
    EXPECT_EQ(responses[0].dest, 9u);
    EXPECT_EQ(responses[0].data,
              proto::bus::encode_identity_and_topic(publisher.hub.identity_snapshot(), "topic"));
}

TEST_F(HubPubSub, ASubscriberOfNothingThatIsPublishedGetsNoAnswer) {
    publisher.hub.publish("topic", {});
    ask_for("other");
    ask_for("topic");
    ASSERT_TRUE(
        peer.wait_for(MessageType::SUBSCRIBE_RESPONSE, 1, "the marker's response is there"));
    EXPECT_EQ(proto::bus::decode_topic_after_identity(
                  peer.heard(MessageType::SUBSCRIBE_RESPONSE).front().data),
              "topic");
}

TEST_F(HubPubSub, AnAdvertisedTopicWithoutAValueIsAnsweredWithoutOne) {
    publisher.hub.advertise("silent", "", proto::bus::TopicKind::EVENT);
    publisher.hub.publish("topic", {});
    ask_for("*");
    ASSERT_TRUE(peer.wait_for(MessageType::EVENT, 2, "the retained event has come"));
    EXPECT_EQ(peer.heard(MessageType::SUBSCRIBE_RESPONSE).size(), 2u);
    EXPECT_EQ(peer.heard(MessageType::EVENT).size(), 2u);
}

TEST_F(HubPubSub, WhatIsTooLargeIsNotRetainedAndTakesTheOlderAway) {
    publisher.hub.publish_event("topic", Bytes(16384));
    EXPECT_EQ(publisher.hub.matching_retained_events("topic").size(), 1u);
    publisher.hub.publish_event("topic", Bytes(16385));
    EXPECT_THAT(publisher.hub.matching_retained_events("topic"), IsEmpty());
}

TEST_F(HubPubSub, AnUnsubscribeRequestEndsNothingButTheLease) {
    publisher.hub.publish("topic", {});
    ask_for("topic");
    peer.send(MessageType::UNSUBSCRIBE_REQUEST, 200, subscription("*"), "", 0);
    ask_for("topic");
    EXPECT_TRUE(peer.wait_for(MessageType::SUBSCRIBE_RESPONSE, 2, "the second response has come"));
}

TEST_F(HubPubSub, MalformedRequestsAreHarmless) {
    for (auto const type : {MessageType::SUBSCRIBE_REQUEST, MessageType::SUBSCRIBE_RESPONSE,
                            MessageType::UNSUBSCRIBE_REQUEST, MessageType::DISCOVERY_RESPONSE}) {
        for (std::size_t const size : {0u, 1u, 203u, 204u, 205u}) {
            peer.send(type, 200, Bytes(size, 0xFF), "", 0);
        }
    }
    publisher.hub.publish("topic", {});
    ask_for("topic");
    EXPECT_TRUE(peer.wait_for(MessageType::SUBSCRIBE_RESPONSE, 1, "the node still answers"));
}

TEST_F(HubPubSub, APatternHearsATopicOnlyOnceItsNameIsKnown) {
    Heard by_pattern;
    Heard by_marker;
    hear(subscriber, "unheard.*", by_pattern);
    hear(subscriber, "marker", by_marker);
    send_event("unheard.topic", 1, {});
    send_event("marker", 2, {});
    ASSERT_TRUE(by_marker.wait_for(1, "the marker has come"));
    EXPECT_EQ(by_pattern.size(), 0u);
    peer.send(MessageType::SUBSCRIBE_RESPONSE, 201, subscription("unheard.topic"), "", 0);
    send_event("unheard.topic", 3, bytes_of("now"));
    ASSERT_TRUE(by_pattern.wait_for(1, "the event has come"));
    EXPECT_THAT(by_pattern.all(), ElementsAre(std::pair("unheard.topic", bytes_of("now"))));
}

TEST_F(HubPubSub, OnlyTheRepetitionOfTheLastEventIsDropped) {
    Heard heard;
    hear(subscriber, "topic", heard);
    for (std::uint32_t const msg_id : {5u, 5u, 6u, 5u}) {
        send_event("topic", msg_id, {static_cast<std::uint8_t>(msg_id)});
    }
    send_event("topic", 0, {0});
    send_event("topic", 0, {0});
    ASSERT_TRUE(heard.wait_for(5, "five have come"));
    std::vector<Bytes> payloads;
    for (auto const& [topic, payload] : heard.all()) {
        payloads.push_back(payload);
    }
    EXPECT_THAT(payloads, ElementsAre(Bytes{5}, Bytes{6}, Bytes{5}, Bytes{0}, Bytes{0}));
}

TEST_F(HubPubSub, TheSameIdOfAnotherOriginOrTopicIsNoRepetition) {
    Heard heard;
    hear(subscriber, "topic", heard);
    hear(subscriber, "other", heard);
    send_event("topic", 5, {});
    send_event("other", 5, {});
    WireFrame header;
    header.type = MessageType::EVENT;
    header.dest = Hub::BROADCAST_ADDRESS;
    header.msg_id = 5;
    header.topic_id = topic_hash("topic");
    header.origin = Origin(0, 77);
    peer.send(header, {});
    EXPECT_TRUE(heard.wait_for(3, "all three have come"));
}

TEST_F(HubPubSub, AHandlerThatThrowsCostsAWarningAndNothingElse) {
    Heard heard;
    subscriber.hub.subscribe(
        "topic", [](Envelope const&) {}, "");
    hear(subscriber, "to*", heard);
    subscriber.hub.subscribe_pattern(
        "topi*", [](std::string const&, Bytes const&, Origin const&) { throw 7; }, "");
    hear(subscriber, "topic*", heard);
    send_event("topic", 1, Bytes(12, 0xFF));
    ASSERT_TRUE(heard.wait_for(2, "the others have been called"));
    auto const warnings = subscriber.warnings.all();
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0], "[bus] EVENT handler for 'topic' threw on this payload "
                           "(malformed/unexpected?): Envelope: truncated or malformed [(raw 12b)]");
    EXPECT_EQ(warnings[1],
              "[bus] EVENT handler for 'topic' threw a non-std::exception on this payload");
}

TEST_F(HubPubSub, AWarningOfAnEnvelopeTellsWhatIsInIt) {
    subscriber.hub.subscribe(
        "topic", [](Envelope const&) { throw std::runtime_error("no"); }, "");
    publisher.hub.publish("topic", {{{"a", "1"}, {"b", "2\n3"}}, {}});
    ASSERT_TRUE(subscriber.warnings.wait_for(1, "the warning has come"));
    EXPECT_EQ(subscriber.warnings.all().front(),
              "[bus] EVENT handler for 'topic' threw on this payload (malformed/unexpected?): no "
              "[a=1, b=2.3]");
}

TEST_F(HubPubSub, AnEarlierDescriptionOutlivesThePublications) {
    publisher.hub.advertise("topic", "told", proto::bus::TopicKind::EVENT, {}, true);
    publisher.hub.publish("topic", {});
    publisher.hub.publish("untold", {});
    auto const own = publisher.hub.discovered_devices().at(200).publications;
    ASSERT_EQ(own.size(), 2u);
    EXPECT_EQ(own[0].description, "told");
    EXPECT_TRUE(own[0].flag);
    EXPECT_EQ(own[1].name, "untold");
    EXPECT_EQ(own[1].description, "");
}

} // namespace
} // namespace tessaron::bus
