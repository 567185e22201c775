#include "MirelClientApp/vnc/vnc_bridge.hpp"

#include "tests/support/WsPeer.hpp"
#include "tests/support/wait_until.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>

namespace mirelclient {
namespace {

using tessaron::UniqueFd;
using test::WsFrame;

/// A screen server: a port of 127.0.0.1 on which a test accepts by hand.
class ScreenServer {
public:
    explicit ScreenServer(int backlog = 8)
        : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(listener_.get(), generic, size), 0);
        EXPECT_EQ(::listen(listener_.get(), backlog), 0);
        EXPECT_EQ(::getsockname(listener_.get(), generic, &size), 0);
        port_ = ntohs(address.sin_port);
    }
    unsigned short port() const { return port_; }
    /// The next viewer's connection, with time limits.
    UniqueFd accept() {
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        timeval const limit{20, 0};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        return fd;
    }
    void close() { listener_.reset(); }
    /// A client's socket; the attempt is under way if its queue is full.
    UniqueFd knock() const {
        UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port_);
        ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
        return fd;
    }

private:
    UniqueFd listener_;
    unsigned short port_ = 0;
};

std::string read_exactly(int fd, std::size_t size) {
    std::string text(size, '\0');
    std::size_t have = 0;
    while (have < size) {
        ssize_t const got = ::recv(fd, text.data() + have, size - have, 0);
        if (got <= 0) {
            break;
        }
        have += static_cast<std::size_t>(got);
    }
    text.resize(have);
    return text;
}

/// A viewer in front of a bridge.
class Viewer {
public:
    Viewer(VncBridges& bridges, unsigned short port,
           HttpRequest const& request = test::sample_request()) {
        test::SocketPair const pair;
        peer = std::make_unique<test::WsPeer>(pair.ends[1]);
        server_ = std::thread([&bridges, port, request, fd = pair.ends[0]] {
            bridges.serve_viewer(fd, request, port);
        });
    }
    ~Viewer() {
        peer->close();
        server_.join();
    }
    Viewer(Viewer const&) = delete;
    Viewer& operator=(Viewer const&) = delete;

    bool is_open() { return peer->read(test::K_SAMPLE_ANSWER.size()) == test::K_SAMPLE_ANSWER; }

    /// Sends until nothing goes in any more: the bridge is stuck in its send to the local server.
    /// Returns how many bytes of payload went in whole.
    std::size_t fill() const {
        std::string const message(65535, 'k');
        std::string const bytes = WsFrame{2, message}.bytes();
        timeval const limit{1, 0};
        ::setsockopt(peer->fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        std::size_t count = 0;
        while (peer->send(bytes)) {
            ++count;
        }
        return count * message.size();
    }

    std::unique_ptr<test::WsPeer> peer;

private:
    std::thread server_;
};

class VncBridgeTest : public testing::Test {
protected:
    ScreenServer screen_;
    VncBridges bridges_;
};

TEST_F(VncBridgeTest, BytesGoBothWaysAsTheyAre) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::string const greeting("RFB 003.008\n\0\xff", 14);
    ASSERT_TRUE(test::WsPeer(::dup(local.get())).send(greeting));
    auto const frame = viewer.peer->read_frame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(*frame, (WsFrame{2, greeting, true, false}));
    viewer.peer->send(WsFrame{2, greeting});
    EXPECT_EQ(read_exactly(local.get(), greeting.size()), greeting);
}

TEST_F(VncBridgeTest, AMegabyteArrivesWholeBothWays) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::string data(1024 * 1024, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 251);
    }
    std::thread sending([&] { test::WsPeer(::dup(local.get())).send(data); });
    std::string received;
    while (received.size() < data.size()) {
        auto const frame = viewer.peer->read_frame();
        ASSERT_TRUE(frame);
        EXPECT_LE(frame->payload.size(), 8192U);
        received += frame->payload;
    }
    sending.join();
    EXPECT_TRUE(received == data);
    std::thread typing([&] { viewer.peer->send(WsFrame{2, data}); });
    EXPECT_TRUE(read_exactly(local.get(), data.size()) == data);
    typing.join();
}

TEST_F(VncBridgeTest, ATextFrameIsIgnored) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.peer->send(WsFrame{1, "not for the server"});
    viewer.peer->send(WsFrame{2, "for it"});
    EXPECT_EQ(read_exactly(local.get(), 6), "for it");
}

TEST_F(VncBridgeTest, WithoutAScreenServerTheConnectionOpensAndEnds) {
    screen_.close();
    Viewer viewer(bridges_, screen_.port());
    EXPECT_TRUE(viewer.is_open());
    EXPECT_EQ(viewer.peer->read(1), "");
}

TEST_F(VncBridgeTest, AWrongHandshakeIsAClosedSocketAndNobodyIsDialled) {
    HttpRequest request = test::sample_request();
    request.headers["connection"] = "keep-alive";
    Viewer viewer(bridges_, screen_.port(), request);
    EXPECT_EQ(viewer.peer->read(1), "");
    Viewer next(bridges_, screen_.port());
    UniqueFd const local = screen_.accept(); // the first that came
    ASSERT_TRUE(next.is_open());
    next.peer->send(WsFrame{2, "hello"});
    EXPECT_EQ(read_exactly(local.get(), 5), "hello");
}

TEST_F(VncBridgeTest, AfterTheLocalServersEndPingsAreAnsweredUntilTheNextMessage) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    ASSERT_TRUE(test::WsPeer(local.release()).send("last"));
    auto const last = viewer.peer->read_frame();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->payload, "last");
    viewer.peer->send(WsFrame{9, "x"});
    auto const pong = viewer.peer->read_frame();
    ASSERT_TRUE(pong);
    EXPECT_EQ(*pong, (WsFrame{10, "x", true, false}));
    // The bridge may not have seen the local end yet: then one more message ends it.
    tessaron::test::wait_until(
        [&viewer] {
            return !viewer.peer->send(WsFrame{2, "k"}) || !viewer.peer->send(WsFrame{9, "y"}) ||
                   !viewer.peer->read_frame();
        },
        "the bridge ends");
}

TEST_F(VncBridgeTest, AServerThatHangsUpAtOnceStillLeavesItsViewerAnAnswerToAPing) {
    for (int i = 0; i < 100; ++i) {
        Viewer viewer(bridges_, screen_.port());
        screen_.accept().reset();
        ASSERT_TRUE(viewer.is_open());
        viewer.peer->send(WsFrame{9, "x"});
        ASSERT_EQ(viewer.peer->read_frame(), (WsFrame{10, "x", true, false}));
    }
}

TEST_F(VncBridgeTest, WhatAViewerSendsBeforeItLeavesReachesTheServer) {
    for (int i = 0; i < 100; ++i) {
        Viewer viewer(bridges_, screen_.port());
        viewer.peer->send(WsFrame{2, "first"});
        viewer.peer->end_of_input();
        ASSERT_EQ(read_exactly(screen_.accept().get(), 6), "first");
    }
}

TEST_F(VncBridgeTest, TheViewersEndEndsTheLocalConnection) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.peer->close();
    EXPECT_EQ(read_exactly(local.get(), 1), "");
}

/// A screen server that takes no more connections, and does not refuse them either.
class StuckServer {
public:
    StuckServer() : first_(server_.knock()), second_(server_.knock()) {}
    unsigned short port() const { return server_.port(); }

private:
    ScreenServer server_{0};
    UniqueFd first_;
    UniqueFd second_;
};

TEST_F(VncBridgeTest, AStopEndsAnAttemptThatNobodyAnswers) {
    StuckServer const stuck;
    Viewer viewer(bridges_, stuck.port());
    ASSERT_TRUE(viewer.is_open());
    bridges_.request_stop();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
    EXPECT_EQ(viewer.peer->read(1), "");
}

TEST_F(VncBridgeTest, AnAttemptThatNobodyAnswersEndsWithItsViewer) {
    StuckServer const stuck;
    Viewer viewer(bridges_, stuck.port());
    ASSERT_TRUE(viewer.is_open());
    viewer.peer->close();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
}

TEST_F(VncBridgeTest, AServerThatReadsNothingDoesNotHoldTheBridgeOfAViewerThatLeft) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.fill();
    viewer.peer->close();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
}

TEST_F(VncBridgeTest, ASlowServerGetsAllThatItsViewerSentBeforeItLeft) {
    Viewer viewer(bridges_, screen_.port());
    UniqueFd const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::size_t const sent = viewer.fill();
    viewer.peer->close();
    EXPECT_EQ(read_exactly(local.get(), sent).size(), sent);
}

TEST_F(VncBridgeTest, AStopEndsEveryBridgeWhateverItIsBlockedIn) {
    Viewer silent(bridges_, screen_.port());
    UniqueFd const silent_local = screen_.accept();
    ASSERT_TRUE(silent.is_open());
    Viewer slow(bridges_, screen_.port());
    UniqueFd const fast_local = screen_.accept();
    ASSERT_TRUE(slow.is_open());
    // More than the buffers hold: the bridge is stuck in its send to the viewer.
    std::thread flood(
        [&] { test::WsPeer(::dup(fast_local.get())).send(std::string(64U << 20U, 'x')); });
    bridges_.request_stop();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
    flood.join();
    EXPECT_EQ(silent.peer->read(1), "");
    Viewer late(bridges_, screen_.port());
    EXPECT_EQ(late.peer->read(1), "");
}

} // namespace
} // namespace mirelclient
