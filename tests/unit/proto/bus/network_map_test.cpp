#include "proto/bus/network_map.hpp"

#include "tests/support/cut_bytes.hpp"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace proto::bus {
namespace {

NetworkDomain sample_domain() {
    ModuleSummary const module{
        0x21,
        "logger",
        {{"read", "Reads lines", TopicKind::REQUEST, {{"from", "int", true}}, true}}};
    HubSummary const hub{0x11, "hub", 0x01020304, {module, {0x22, "", {}}}};
    NetworkDomain const leaf{3, {hub}, {}};
    return {1, {hub, {0x12, "bare", 0, {}}}, {leaf, {4, {}, {{5, {}, {}}}}}};
}

/// `depth` domains, each but the last with one within it.
NetworkDomain nested(std::size_t depth) {
    NetworkDomain domain;
    for (std::size_t i = 1; i < depth; ++i) {
        NetworkDomain outer;
        outer.children.push_back(std::move(domain));
        domain = std::move(outer);
    }
    return domain;
}

std::size_t depth_of(NetworkDomain const& domain) {
    return domain.children.empty() ? 1 : 1 + depth_of(domain.children.front());
}

TEST(NetworkDomain, DecodesWhatWasEncoded) {
    EXPECT_EQ(decode_network_domain(encode_network_domain(sample_domain())), sample_domain());
    EXPECT_EQ(decode_network_domain(encode_network_domain({})), NetworkDomain{});
}

TEST(NetworkDomain, HasItsFieldsInOrder) {
    NetworkDomain const domain{
        0x01020304,
        {{5, "h", 6, {{7, "m", {{"t", "d", TopicKind::REQUEST, {{"p", "x", true}}, false}}}}}},
        {{8, {}, {}}}};
    Bytes const expected{
        4, 3, 2, 1,                                  // the domain
        1, 0, 5, 0, 0,   0, 1, 0,   'h', 6, 0, 0, 0, // its hub
        1, 0, 7, 0, 0,   0, 1, 0,   'm',             // the hub's module
        1, 0, 1, 0, 't', 1, 0, 'd', 1,   0, 0, 0,    // the module's topic
        1, 0, 1, 0, 'p', 1, 0, 'x', 1,   0,          // the topic's param
        1, 0, 8, 0, 0,   0, 0, 0,   0,   0,          // the domain within
    };
    EXPECT_EQ(encode_network_domain(domain), expected);
}

TEST(NetworkDomain, CutAnywhereIsRefused) {
    for (Bytes const& cut :
         tessaron::test::cut_everywhere(encode_network_domain(sample_domain()))) {
        EXPECT_FALSE(decode_network_domain(cut)) << cut.size();
    }
}

TEST(NetworkDomain, BytesBehindItAreIgnored) {
    Bytes payload = encode_network_domain(sample_domain());
    payload.push_back(0xee);
    EXPECT_EQ(decode_network_domain(payload), sample_domain());
}

TEST(NetworkDomain, MayBeAsDeepAsTheLimit) {
    NetworkDomain const domain = nested(K_MAX_NETWORK_DOMAIN_DEPTH);
    EXPECT_EQ(decode_network_domain(encode_network_domain(domain)), domain);
}

TEST(NetworkDomain, DomainsBeyondTheLimitAreNotWritten) {
    auto const read = decode_network_domain(encode_network_domain(nested(100)));
    ASSERT_TRUE(read);
    EXPECT_EQ(depth_of(*read), K_MAX_NETWORK_DOMAIN_DEPTH);
}

TEST(NetworkDomain, DeeperThanTheLimitIsRefused) {
    Bytes payload;
    for (std::size_t i = 0; i < K_MAX_NETWORK_DOMAIN_DEPTH; ++i) {
        payload.insert(payload.end(), {0, 0, 0, 0, 0, 0, 1, 0});
    }
    payload.insert(payload.end(), 8, 0);
    EXPECT_FALSE(decode_network_domain(payload));
}

TEST(NetworkDomain, AMegabyteOfNestedDomainsIsRefused) {
    Bytes payload;
    while (payload.size() < 0x100000) {
        payload.insert(payload.end(), {0, 0, 0, 0, 0, 0, 1, 0});
    }
    EXPECT_FALSE(decode_network_domain(payload));
}

TEST(NetworkDomain, CountsThatNothingFollowsAreRefused) {
    EXPECT_FALSE(decode_network_domain({1, 0, 0, 0, 0xff, 0xff}));
    EXPECT_FALSE(decode_network_domain({1, 0, 0, 0, 0, 0, 0xff, 0xff}));
}

TEST(NetworkDomain, ATextThatIsTooLongIsCutAndWhatFollowsIsWhole) {
    NetworkDomain domain = sample_domain();
    domain.hubs[0].name = std::string(70000, 'h');
    domain.hubs[0].modules[0].topics[0].description = std::string(65536, 'd');
    auto const read = decode_network_domain(encode_network_domain(domain));
    domain.hubs[0].name.resize(65535);
    domain.hubs[0].modules[0].topics[0].description.resize(65535);
    EXPECT_EQ(read, domain);
}

TEST(DiscoverNetworkRequest, ParsesWhatWasBuilt) {
    DiscoverNetworkRequest const request{8, {0x01020304, 0, 0xffffffff}};
    EXPECT_EQ(DiscoverNetworkRequest::parse(request.build()), request);
    EXPECT_EQ(request.build(), (Bytes{8, 0, 3, 0, 4, 3, 2, 1, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}));
    EXPECT_EQ(DiscoverNetworkRequest::parse(DiscoverNetworkRequest{}.build()),
              DiscoverNetworkRequest{});
}

TEST(DiscoverNetworkRequest, CutAnywhereIsRefused) {
    DiscoverNetworkRequest const request{8, {1, 2}};
    for (Bytes const& cut : tessaron::test::cut_everywhere(request.build())) {
        EXPECT_THROW(DiscoverNetworkRequest::parse(cut), std::invalid_argument) << cut.size();
    }
}

} // namespace
} // namespace proto::bus
