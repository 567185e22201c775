#include "MirelClientApp/tunnel/tunnel_dial.hpp"

#include "tests/unit/MirelClientApp/tunnel/TunnelPeer.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <string>

namespace mirelclient::test {
namespace {

std::string parts_of(std::string const& text) {
    auto const where = split_host_port(text);
    return where ? where->host + " " + where->port : "nothing";
}

TEST(TunnelDial, AnAddressIsCutAtItsLastColon) {
    EXPECT_EQ(parts_of("example:1234"), "example 1234");
    EXPECT_EQ(parts_of("::1:99"), "::1 99");
    EXPECT_EQ(parts_of("a:b:http"), "a:b http");
}

TEST(TunnelDial, AnAddressNeedsHostAndPort) {
    for (char const* text : {"example:", ":1234", "plain", ":", ""}) {
        EXPECT_EQ(parts_of(text), "nothing") << text;
    }
}

TEST(TunnelDial, NumericAddressesNeedNoResolver) {
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_EQ(resolve({"127.0.0.1", "80"}, stopped.get_token()).size(), 1U);
    EXPECT_EQ(resolve({"::1", "80"}, stopped.get_token()).size(), 1U);
}

TEST(TunnelDial, NamesAreResolvedAndUnknownOnesAreNot) {
    EXPECT_FALSE(resolve({"localhost", "80"}, {}).empty());
    EXPECT_TRUE(resolve({"localhost", "no-such-service"}, {}).empty());
}

TEST(TunnelDial, TheAddressesOfANameAreTriedInTurn) {
    // The name has an IPv6 address too, on which nobody listens.
    Listener server;
    EXPECT_TRUE(dial("localhost:" + std::to_string(server.port()), {}).is_open());
}

TEST(TunnelDial, ARefusalIsNoSocket) {
    std::string const gone = Listener().address();
    EXPECT_FALSE(dial(gone, {}).is_open());
}

TEST(TunnelDial, ATunnelsSocketDoesNotBlockAndABackendsDoes) {
    Listener server;
    auto const tunnel = dial(server.address(), {});
    auto const backend = connect_local(server.port(), {});
    EXPECT_NE(fcntl(tunnel.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(backend.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(tunnel.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(fcntl(backend.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(TunnelDial, AnUnansweredDialIsGivenUpAfterTwoRepeats) {
    Listener server;
    auto const tunnel = dial(server.address(), {});
    int repeats = 0;
    socklen_t size = sizeof repeats;
    ASSERT_EQ(getsockopt(tunnel.get(), IPPROTO_TCP, TCP_SYNCNT, &repeats, &size), 0);
    EXPECT_EQ(repeats, 2);
}

} // namespace
} // namespace mirelclient::test
