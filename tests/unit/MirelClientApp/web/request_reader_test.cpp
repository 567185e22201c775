#include "MirelClientApp/web/request_reader.hpp"

#include "app/utilities/file_io.hpp"

#include <array>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <sys/socket.h>
#include <utility>

using mirelclient::extract_content_length;
using mirelclient::K_MAX_REQUEST_BYTES;
using mirelclient::read_full_request;
using mirelclient::ReadOutcome;
using tessaron::UniqueFd;

namespace {

std::pair<UniqueFd, UniqueFd> connected_pair() {
    std::array<int, 2> fds{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    return {UniqueFd(fds[0]), UniqueFd(fds[1])};
}

/// What the reader makes of a peer that sends all of this and then closes.
ReadOutcome read_from_peer(std::string const& text) {
    auto [ours, theirs] = connected_pair();
    auto writer = std::async(std::launch::async, [&text, end = std::move(theirs)]() mutable {
        UniqueFd const peer = std::move(end); // closed here, not with the future
        std::string_view rest = text;
        while (!rest.empty()) {
            ssize_t const sent = ::send(peer.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return;
            }
            rest.remove_prefix(static_cast<std::size_t>(sent));
        }
    });
    ReadOutcome outcome = read_full_request(ours.get());
    ours.reset();
    writer.get();
    return outcome;
}

/// A request of exactly so many bytes, declared right.
std::string request_of_size(std::size_t size) {
    std::string head = "POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n";
    std::size_t const body = size - head.size();
    std::string const digits = std::to_string(body);
    head.replace(head.find("1000000"), 7, digits);
    head.insert(head.size() - 4, std::string(7 - digits.size(), ' '));
    return head + std::string(body, 'x');
}

} // namespace

TEST(ContentLength, IsFoundInAnyCase) {
    EXPECT_EQ(extract_content_length("POST / HTTP/1.1\r\ncOnTeNt-LeNgTh: 12\r\nHost: x"), 12);
}

TEST(ContentLength, WithoutAnOccurrenceIsMinusOne) {
    EXPECT_EQ(extract_content_length("GET / HTTP/1.1\r\nContent-Len: 3"), -1);
    EXPECT_EQ(extract_content_length(""), -1);
}

TEST(ContentLength, IsFoundInsideAnotherHeadersName) {
    EXPECT_EQ(extract_content_length("POST /\r\nX-Content-Length: 5"), 5);
}

TEST(ContentLength, TheFirstOccurrenceCounts) {
    EXPECT_EQ(extract_content_length("POST /\r\nContent-Length: 5\r\nContent-Length: 9"), 5);
}

TEST(ContentLength, IsConvertedAsStrtolDoes) {
    EXPECT_EQ(extract_content_length("A\r\nContent-Length:\t +7abc"), 7);
    EXPECT_EQ(extract_content_length("A\r\nContent-Length: -3"), -3);
    EXPECT_EQ(extract_content_length("A\r\nContent-Length: 0"), 0);
    EXPECT_EQ(extract_content_length("A\r\nContent-Length: many"), 0);
    EXPECT_EQ(extract_content_length("A\r\nContent-Length: 0x10"), 0);
    EXPECT_EQ(extract_content_length("A\r\nContent-Length: 99999999999999999999"),
              std::numeric_limits<long>::max());
}

TEST(ContentLength, IsNotReadFromBehindTheHead) {
    std::string const raw = "POST /\r\nContent-Length:\r\n\r\n12";
    EXPECT_EQ(extract_content_length(std::string_view(raw).substr(0, raw.find("\r\n\r\n"))), 0);
}

TEST(ReadFullRequest, StopsBehindTheHeadWithoutADeclaredLength) {
    std::string const request = "GET / HTTP/1.1\r\n\r\n";
    auto [ours, theirs] = connected_pair();
    ASSERT_EQ(::send(theirs.get(), request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
    ReadOutcome const outcome = read_full_request(ours.get()); // the peer stays connected
    EXPECT_EQ(outcome.raw, request);
    EXPECT_FALSE(outcome.input_may_remain);
}

TEST(ReadFullRequest, ZeroNegativeAndUnreadableLengthsStopBehindTheHead) {
    for (char const* length : {"0", "-5", "many", ""}) {
        std::string const request = std::string("POST /\r\nContent-Length: ") + length + "\r\n\r\n";
        auto [ours, theirs] = connected_pair();
        ASSERT_EQ(::send(theirs.get(), request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        EXPECT_EQ(read_full_request(ours.get()).raw, request);
    }
}

TEST(ReadFullRequest, WaitsForTheDeclaredBody) {
    std::string const head = "POST /\r\nContent-Length: 4\r\n\r\n";
    auto [ours, theirs] = connected_pair();
    auto reader =
        std::async(std::launch::async, [fd = ours.get()] { return read_full_request(fd); });
    for (char const byte : head + "body") {
        ASSERT_EQ(::send(theirs.get(), &byte, 1, 0), 1);
    }
    ReadOutcome const outcome = reader.get();
    EXPECT_EQ(outcome.raw, head + "body");
    EXPECT_FALSE(outcome.input_may_remain);
}

TEST(ReadFullRequest, ReturnsWhatCameWhenThePeerCloses) {
    EXPECT_EQ(read_from_peer("POST /\r\nContent-Length: 10\r\n\r\nfour").raw,
              "POST /\r\nContent-Length: 10\r\n\r\nfour");
    EXPECT_EQ(read_from_peer("GET / HT").raw, "GET / HT");
    EXPECT_EQ(read_from_peer("").raw, "");
}

TEST(ReadFullRequest, TakesExactlyOneMebibyte) {
    std::string const request = request_of_size(K_MAX_REQUEST_BYTES);
    ASSERT_EQ(request.size(), 1048576U);
    EXPECT_TRUE(read_from_peer(request).raw == request);
}

TEST(ReadFullRequest, RefusesOneByteMore) {
    ReadOutcome const outcome = read_from_peer(request_of_size(K_MAX_REQUEST_BYTES + 1));
    EXPECT_EQ(outcome.raw, "");
    EXPECT_TRUE(outcome.input_may_remain);
}

TEST(ReadFullRequest, RefusesAHeadWithoutEnd) {
    EXPECT_EQ(read_from_peer("GET /" + std::string(K_MAX_REQUEST_BYTES, 'a')).raw, "");
}

TEST(ReadFullRequest, FindsTheEndOfTheHeadAcrossReads) {
    for (std::size_t cut = 4090; cut <= 4098; ++cut) { // around the size of one read
        std::string request = "GET / HTTP/1.1\r\nA: ";
        request.resize(cut, 'a');
        request += "\r\n\r\n";
        EXPECT_EQ(read_from_peer(request).raw, request) << cut;
    }
}

TEST(ReadFullRequest, TellsThatMoreThanDeclaredHasCome) {
    std::string const request = "POST /\r\nContent-Length: 2\r\n\r\nhello";
    ReadOutcome const outcome = read_from_peer(request);
    EXPECT_EQ(outcome.raw, request);
    EXPECT_TRUE(outcome.input_may_remain);
}

TEST(ReadFullRequest, TellsThatAnUndeclaredBodyMayFollow) {
    EXPECT_TRUE(read_from_peer("POST /\r\nTransfer-Encoding: chunked\r\n\r\n").input_may_remain);
    EXPECT_FALSE(read_from_peer("GET /\r\nAccept: x\r\n\r\n").input_may_remain);
}
