// What clients see, byte for byte, over real connections.

#include "MirelClientApp/web/WebServer.hpp"

#include "LoopbackClient.hpp"
#include "tests/support/wait_until.hpp"

#include <cstddef>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <string>

using namespace mirelclient::test;
using mirelclient::HttpRequest;
using mirelclient::HttpResponse;
using mirelclient::WebServer;
using tessaron::UniqueFd;
using tessaron::test::wait_until;

namespace {

constexpr char const* K_NOT_FOUND = R"({"error":"not found"})";
constexpr char const* K_MALFORMED = R"({"error":"malformed request"})";
constexpr char const* K_OVERSIZED = R"({"error":"empty or oversized request"})";

/// Answers with what it was asked, so that a test sees what a handler sees.
HttpResponse echo(HttpRequest const& request) {
    std::string text = request.method + " " + request.path;
    for (auto const& [name, value] : request.params) {
        text += " " + name + "=" + value;
    }
    return HttpResponse::html(text + " [" + request.body + "]", 200);
}

class WebServerAnswers : public testing::Test {
protected:
    WebServerAnswers() {
        server_.route("GET", "/", echo);
        server_.route("GET", "/api/packages", echo);
        server_.route("GET", "/api/first", [](auto const&) { return HttpResponse::json("1"); });
        server_.route("GET", "/api/{any}", echo);
        server_.route("GET", "/pair/{one}/{two}", echo);
        server_.route("POST", "/post", echo);
        server_.route("POST", "/size", [](HttpRequest const& request) {
            return HttpResponse::json(std::to_string(request.body.size()), 200);
        });
        server_.route("GET", "/static/novnc/core/{path...}", echo);
        server_.route("GET", "/status/502",
                      [](auto const&) { return HttpResponse::json("{}", 502); });
        server_.route("GET", "/throws", [](auto const&) -> HttpResponse {
            throw std::runtime_error("a \"b\"\n\\c");
        });
        server_.route("GET", "/console", echo);
        server_.route_ws("GET", "/console", [](int fd, HttpRequest const& request) {
            UniqueFd const socket(fd);
            EXPECT_TRUE(tessaron::write_all(fd, "raw " + request.path));
        });
        EXPECT_EQ(server_.start(), "");
    }

    std::string ask(std::string const& request) { return answer_to(server_.port(), request); }

    static std::string echoed(std::string const& text) {
        return answer_text("200 OK", "text/html; charset=utf-8", text);
    }

    WebServer server_{"127.0.0.1", 0};
};

std::string post(std::string const& path, std::string const& headers, std::string const& body) {
    return "POST " + path + " HTTP/1.1\r\n" + headers + "\r\n" + body;
}

} // namespace

TEST_F(WebServerAnswers, AHandlersResponseGoesOutByteForByte) {
    EXPECT_EQ(ask(get("/api/first")),
              "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 1\r\n"
              "Connection: close\r\n\r\n1");
}

TEST_F(WebServerAnswers, TheFirstRouteThatMatchesWins) {
    EXPECT_EQ(ask(get("/api/other")), echoed("GET /api/other any=other []"));
    EXPECT_EQ(ask(get("/api/first")), json_answer("200 OK", "1"));
}

TEST_F(WebServerAnswers, PostThatClosesEarlyReachesItsHandlerWithWhatCame) {
    LoopbackClient client(server_.port());
    client.send(post("/post", "Content-Length: 10\r\n", "four"));
    client.end_of_input();
    EXPECT_EQ(client.read_all(), echoed("POST /post [four]"));
}

TEST_F(WebServerAnswers, XContentLengthCountsAsADeclaredLength) {
    LoopbackClient client(server_.port());
    client.send(post("/post", "X-Content-Length: 5\r\n", ""));
    client.send("12345");
    EXPECT_EQ(client.read_all(), echoed("POST /post [12345]"));
}

TEST_F(WebServerAnswers, AHeaderLineWithoutAColonIsNoError) {
    EXPECT_EQ(ask("GET / HTTP/1.1\r\nnonsense\r\n\r\n"), echoed("GET / []"));
}

TEST_F(WebServerAnswers, AnEncodedSlashSeparatesPieces) {
    EXPECT_EQ(ask(get("/pair%2Fa%2Fb")), echoed("GET /pair/a/b one=a two=b []"));
}

TEST_F(WebServerAnswers, EmptyPiecesVanish) {
    EXPECT_EQ(ask(get("/api/packages/")), echoed("GET /api/packages/ []"));
    EXPECT_EQ(ask(get("//api///packages")), echoed("GET //api///packages []"));
}

TEST_F(WebServerAnswers, ARestMayBeEmpty) {
    EXPECT_EQ(ask(get("/static/novnc/core/")), echoed("GET /static/novnc/core/ path= []"));
}

TEST_F(WebServerAnswers, AnotherMethodIsNotFound) {
    EXPECT_EQ(ask("PUT /api/packages HTTP/1.1\r\n\r\n"), json_answer("404 Not Found", K_NOT_FOUND));
    EXPECT_EQ(ask("get / HTTP/1.1\r\n\r\n"), json_answer("404 Not Found", K_NOT_FOUND));
}

TEST_F(WebServerAnswers, AnUnknownPathIsNotFound) {
    EXPECT_EQ(ask(get("/nowhere")), json_answer("404 Not Found", K_NOT_FOUND));
}

TEST_F(WebServerAnswers, ARequestLineNeedsNoVersion) {
    EXPECT_EQ(ask("GET /\r\n\r\n"), echoed("GET / []"));
}

TEST_F(WebServerAnswers, BadEscapesReachTheHandlerAsTheyStand) {
    EXPECT_EQ(ask(get("/api/%zza+b%4")), echoed("GET /api/%zza+b%4 any=%zza+b%4 []"));
}

TEST_F(WebServerAnswers, AnUnnamedStatusHasAnEmptyReason) {
    EXPECT_EQ(ask(get("/status/502")), json_answer("502 ", "{}"));
}

TEST_F(WebServerAnswers, AStandardExceptionIsA500WithItsText) {
    EXPECT_EQ(ask(get("/throws")),
              json_answer("500 Internal Server Error", R"({"error":"a \"b\"\n\\c"})"));
}

TEST_F(WebServerAnswers, AWebSocketRouteTakesTheRawSocketOver) {
    EXPECT_EQ(ask(get("/console")), "raw /console");
}

TEST_F(WebServerAnswers, NothingAtAllIsAnEmptyRequest) {
    LoopbackClient client(server_.port());
    client.end_of_input();
    EXPECT_EQ(client.read_all(), json_answer("400 Bad Request", K_OVERSIZED));
}

TEST_F(WebServerAnswers, WhatCannotBeParsedIsMalformed) {
    EXPECT_EQ(ask("\r\n\r\n"), json_answer("400 Bad Request", K_MALFORMED));
    EXPECT_EQ(ask("GET\r\n\r\n"), json_answer("400 Bad Request", K_MALFORMED));
    LoopbackClient unfinished(server_.port());
    unfinished.send("GET / HTTP/1.1\r\nHost: x\r\n");
    unfinished.end_of_input();
    EXPECT_EQ(unfinished.read_all(), json_answer("400 Bad Request", K_MALFORMED));
}

TEST_F(WebServerAnswers, ARequestMayComeByteByByte) {
    LoopbackClient client(server_.port());
    int const on = 1;
    ::setsockopt(client.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    for (char const byte : post("/post", "Content-Length: 4\r\n", "slow")) {
        ASSERT_TRUE(client.send(std::string(1, byte)));
    }
    EXPECT_EQ(client.read_all(), echoed("POST /post [slow]"));
}

TEST_F(WebServerAnswers, ExactlyOneMebibyteIsTaken) {
    std::string const head = post("/size", "Content-Length: 1048528\r\n", "");
    std::string const body(1048528, 'x');
    ASSERT_EQ(head.size() + body.size(), 1048576U);
    EXPECT_EQ(ask(head + body), json_answer("200 OK", "1048528"));
}

TEST_F(WebServerAnswers, OneByteMoreIsRefused) {
    std::string const head = post("/size", "Content-Length: 1048529\r\n", "");
    std::string const body(1048529, 'x');
    EXPECT_EQ(ask(head + body), json_answer("400 Bad Request", K_OVERSIZED));
}

TEST_F(WebServerAnswers, ATooLargeDeclarationIsRefusedOnlyOnceTheBytesHaveCome) {
    std::string const head = post("/size", "Content-Length: 2000000\r\n", "");
    LoopbackClient client(server_.port());
    ASSERT_TRUE(client.send(head + std::string(1048576 - head.size(), 'x')));
    EXPECT_TRUE(client.is_silent());
    ASSERT_TRUE(client.send("x"));
    EXPECT_EQ(client.read_all(), json_answer("400 Bad Request", K_OVERSIZED));

    LoopbackClient short_one(server_.port());
    short_one.send(head + "four");
    short_one.end_of_input();
    EXPECT_EQ(short_one.read_all(), json_answer("200 OK", "4"));
}

TEST_F(WebServerAnswers, AnOversizedRequestsSenderReadsItsAnswerAndNoReset) {
    std::string const head = post("/size", "Content-Length: 3000000\r\n", "");
    EXPECT_EQ(ask(head + std::string(3'000'000, 'x')), json_answer("400 Bad Request", K_OVERSIZED));
}

TEST_F(WebServerAnswers, ASenderOfMoreThanItDeclaredReadsItsAnswerAndNoReset) {
    for (char const* headers : {"Content-Length: 1\r\n", "Transfer-Encoding: chunked\r\n"}) {
        LoopbackClient client(server_.port());
        client.send(post("/size", headers, "x"));
        client.send(std::string(200'000, 'x'));
        EXPECT_TRUE(client.read_all().starts_with("HTTP/1.1 200 OK\r\n")) << headers;
    }
}

TEST_F(WebServerAnswers, AConnectionIsClosedBehindItsOneAnswer) {
    EXPECT_EQ(ask("GET / HTTP/1.1\r\nConnection: keep-alive\r\n\r\n" + get("/api/first")),
              echoed("GET / [" + get("/api/first") + "]"));
    std::size_t const open = descriptor_count();
    EXPECT_EQ(ask(get("/")), echoed("GET / []"));
    wait_until([&] { return descriptor_count() <= open; }, "the server has closed its side");
}
