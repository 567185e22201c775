#include "MirelClientApp/web/websocket_handshake.hpp"

#include "tests/support/WsPeer.hpp"

#include <gtest/gtest.h>
#include <string>

namespace mirelclient {
namespace {

using detail::header_contains_token;

/// What a client gets, up to the end of the connection; the handshake's result goes to `accepted`.
std::string answer_to(HttpRequest const& request, bool& accepted) {
    test::SocketPair pair;
    test::WsPeer peer(pair.ends[1]);
    tessaron::UniqueFd server(pair.ends[0]);
    accepted = ws_handshake(server.get(), request);
    server.reset();
    return peer.read(1000);
}

void expect_accepted(HttpRequest const& request) {
    bool accepted = false;
    EXPECT_EQ(answer_to(request, accepted), test::K_SAMPLE_ANSWER);
    EXPECT_TRUE(accepted);
}

void expect_refused(HttpRequest const& request) {
    bool accepted = true;
    EXPECT_EQ(answer_to(request, accepted), "");
    EXPECT_FALSE(accepted);
}

HttpRequest with_header(std::string const& name, std::string const& value) {
    HttpRequest request = test::sample_handshake();
    request.headers[name] = value;
    return request;
}

TEST(WebSocketHandshake, AnswersTheExampleOfTheStandard) {
    expect_accepted(test::sample_handshake());
}

TEST(WebSocketHandshake, IsAGetAndNothingElse) {
    for (char const* method : {"POST", "get", "HEAD", ""}) {
        HttpRequest request = test::sample_handshake();
        request.method = method;
        expect_refused(request);
    }
}

TEST(WebSocketHandshake, NeedsEachOfItsHeaders) {
    for (char const* name : {"connection", "upgrade", "sec-websocket-key"}) {
        HttpRequest request = test::sample_handshake();
        request.headers.erase(name);
        expect_refused(request);
        request.headers[name] = "";
        expect_refused(request);
    }
}

TEST(WebSocketHandshake, FindsUpgradeAmongOtherTokens) {
    expect_accepted(with_header("connection", "keep-alive, Upgrade"));
    expect_accepted(with_header("connection", "upgrade,keep-alive"));
    expect_refused(with_header("connection", "keep-alive"));
}

TEST(WebSocketHandshake, DoesNotCareAboutCase) {
    expect_accepted(with_header("upgrade", "WebSocket"));
    expect_accepted(with_header("connection", "UPGRADE"));
}

TEST(WebSocketHandshake, DoesNotLookAtTheVersion) {
    expect_accepted(with_header("sec-websocket-version", "7"));
}

TEST(WebSocketHandshake, FailsWhenTheClientHasLeft) {
    test::SocketPair pair;
    tessaron::UniqueFd const server(pair.ends[0]);
    tessaron::UniqueFd(pair.ends[1]).reset();
    EXPECT_FALSE(ws_handshake(server.get(), test::sample_handshake()));
}

TEST(HeaderContainsToken, ComparesWholePieces) {
    EXPECT_TRUE(header_contains_token("a, b\t,\t c ", "b"));
    EXPECT_TRUE(header_contains_token("a, b\t,\t c ", "c"));
    EXPECT_FALSE(header_contains_token("upgrades", "upgrade"));
    EXPECT_FALSE(header_contains_token("an upgrade", "upgrade"));
    EXPECT_FALSE(header_contains_token("upgrad", "upgrade"));
}

TEST(HeaderContainsToken, NeverMatchesAnEmptyPiece) {
    EXPECT_FALSE(header_contains_token("", ""));
    EXPECT_FALSE(header_contains_token(",", ""));
    EXPECT_FALSE(header_contains_token(" ,\t, ", ""));
}

TEST(HeaderContainsToken, IgnoresCaseOfLettersAlone) {
    EXPECT_TRUE(header_contains_token("AzZ", "aZz"));
    // What lies beside the letters differs by the same bit as upper and lower case do.
    EXPECT_FALSE(header_contains_token("[", "{"));
    EXPECT_FALSE(header_contains_token("@", "`"));
    EXPECT_FALSE(header_contains_token("\xc4", "\xe4"));
}

} // namespace
} // namespace mirelclient
