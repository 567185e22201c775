#include "MirelClientApp/web/response_writer.hpp"

#include "LoopbackClient.hpp"

#include <array>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>

using mirelclient::HttpResponse;
using mirelclient::reason_phrase;
using mirelclient::write_response;
using tessaron::UniqueFd;

namespace {

std::string written(HttpResponse const& response) {
    std::array<int, 2> fds{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    UniqueFd const reading(fds[0]);
    auto writer = std::async(std::launch::async, [&response, fd = fds[1]] {
        UniqueFd const writing(fd);
        write_response(fd, response);
    });
    std::string text;
    std::array<char, 65536> buffer;
    for (ssize_t got = 0; (got = ::recv(fds[0], buffer.data(), buffer.size(), 0)) > 0;) {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

} // namespace

TEST(ReasonPhrase, KnowsFourStatuses) {
    EXPECT_EQ(reason_phrase(200), "OK");
    EXPECT_EQ(reason_phrase(400), "Bad Request");
    EXPECT_EQ(reason_phrase(404), "Not Found");
    EXPECT_EQ(reason_phrase(500), "Internal Server Error");
}

TEST(ReasonPhrase, OfAnyOtherStatusIsEmpty) {
    for (int const status : {0, -1, 101, 201, 204, 301, 403, 405, 501, 502, 503}) {
        EXPECT_EQ(reason_phrase(status), "") << status;
    }
}

TEST(WriteResponse, SendsEveryByteInOrder) {
    EXPECT_EQ(written(HttpResponse::json("{}", 200)),
              "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
              "Connection: close\r\n\r\n{}");
}

TEST(WriteResponse, KeepsTheBlankBeforeAnEmptyReason) {
    EXPECT_EQ(written(HttpResponse::error("x", 502)),
              "HTTP/1.1 502 \r\nContent-Type: application/json\r\nContent-Length: 13\r\n"
              "Connection: close\r\n\r\n{\"error\":\"x\"}");
}

TEST(WriteResponse, SendsBodiesOfMegabytesWhole) {
    std::string const body(5'000'000, 'x');
    EXPECT_TRUE(written(HttpResponse::html(body, 200)) ==
                mirelclient::test::answer_text("200 OK", "text/html; charset=utf-8", body));
}

TEST(WriteResponse, DropsTheRestWhenThePeerIsGone) {
    std::array<int, 2> fds{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    UniqueFd const writing(fds[0]);
    ::close(fds[1]);
    write_response(fds[0], HttpResponse::html("gone", 200)); // returns, and no SIGPIPE
    SUCCEED();
}
