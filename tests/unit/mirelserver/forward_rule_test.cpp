#include "mirelserver/DirectChannel.hpp"
#include "mirelserver/forward_rule.hpp"
#include "mirelserver/proxy_head.hpp"

#include <gtest/gtest.h>

namespace mirelserver {
namespace {

TEST(ForwardRule, ThePrefixNamesTheMachineAndIsTakenOff) {
    EXPECT_EQ(forward_of("POST", "/api/clients/a%20b/proxy/x%2Fy?q=1", ""),
              (Forward{"a b", "/x%2Fy?q=1", false}));
    EXPECT_EQ(forward_of("GET", "http://h/api/clients/m/proxy/x?q", ""),
              (Forward{"m", "/x?q", false}));
}

TEST(ForwardRule, TheRootOfAMachineIsItsPage) {
    for (char const* target : {"/api/clients/m/proxy", "/api/clients/m/proxy/"}) {
        EXPECT_EQ(forward_of("GET", target, ""), (Forward{"m", "/", true})) << target;
    }
    EXPECT_EQ(forward_of("GET", "/api/clients/m/proxy?a", ""), (Forward{"m", "/?a", true}));
    EXPECT_EQ(forward_of("POST", "/api/clients/m/proxy/", ""), (Forward{"m", "/", false}));
}

TEST(ForwardRule, TheCookieNamesTheMachineOfTheTerminalAtTheRoot) {
    EXPECT_EQ(forward_of("GET", "/api/console/ws?v", "x=y; mirel_client=a%2Fb"),
              (Forward{"a/b", "/api/console/ws?v", false}));
    EXPECT_EQ(forward_of("GET", "/api/console/ws", "mirel_client=m;z=1"),
              (Forward{"m", "/api/console/ws", false}));
    EXPECT_FALSE(forward_of("GET", "/api/console/ws", "not_mirel_client=m"));
    EXPECT_FALSE(forward_of("GET", "/api/console/ws", "mirel_client=%zz"));
    EXPECT_FALSE(forward_of("POST", "/api/console/ws", "mirel_client=m"));
    EXPECT_FALSE(forward_of("GET", "/static/a.js", "mirel_client=m"));
    EXPECT_FALSE(forward_of("GET", "/api/packages", "mirel_client=m"));
}

TEST(ForwardRule, OtherPathsAreNobodyElses) {
    for (char const* target : {"/api/clients", "/api/clients/heartbeat", "/api/clients/m/proxyx",
                               "/api/clients/m/x/proxy/", "/api/clients/%zz/proxy/", "*"}) {
        EXPECT_FALSE(forward_of("GET", target, "")) << target;
    }
}

TEST(ForwardRule, ACookieHoldsAnyName) {
    EXPECT_EQ(page_cookie("a;\xc3"), "mirel_client=a%3B%C3; Path=/; HttpOnly; SameSite=Lax");
}

TEST(ProxyHead, AnAnswerEndsItsConnectionAndMaySetACookie) {
    EXPECT_EQ(answered_head("HTTP/1.1 200 OK\r\nconnection: keep-alive\r\nA: b\r\n\r\n", "c=d"),
              "HTTP/1.1 200 OK\r\nA: b\r\nSet-Cookie: c=d\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(answered_head("SSH-2.0\r\n\r\n", ""), "");
}

TEST(WebAddress, IsReadWithAndWithoutItsParts) {
    auto const full = parse_web_address("http://host:7080/x");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->host + " " + full->port + " " + full->authority, "host 7080 host:7080");
    EXPECT_EQ(parse_web_address("10.0.0.1")->port, "80");
    EXPECT_EQ(parse_web_address("http://[::1]:81")->host, "::1");
    for (char const* text :
         {"", "http://", "https://h:1", "h:", "h:x", "h:65536", "[::1", "a b", "[::1]x"}) {
        EXPECT_FALSE(parse_web_address(text)) << text;
    }
}

} // namespace
} // namespace mirelserver
