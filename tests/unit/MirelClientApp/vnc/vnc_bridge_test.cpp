#include "MirelClientApp/vnc/vnc_bridge.hpp"

#include "tests/support/Listener.hpp"
#include "tests/support/WsPeer.hpp"
#include "tests/support/wait_until.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>

namespace mirelclient {
namespace {

using test::WsFrame;

/// A viewer in front of a bridge.
class Viewer {
public:
    Viewer(VncBridges& bridges, unsigned short port,
           HttpRequest const& request = test::sample_handshake()) {
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
    /// A screen server on which a test accepts by hand.
    test::Listener screen_;
    VncBridges bridges_;
};

TEST_F(VncBridgeTest, BytesGoBothWaysAsTheyAre) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::string const greeting("RFB 003.008\n\0\xff", 14);
    ASSERT_TRUE(local.send(greeting));
    auto const frame = viewer.peer->read_frame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(*frame, (WsFrame{2, greeting, true, false}));
    viewer.peer->send(WsFrame{2, greeting});
    EXPECT_EQ(local.read(greeting.size()), greeting);
}

TEST_F(VncBridgeTest, AMegabyteArrivesWholeBothWays) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::string data(1024 * 1024, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 251);
    }
    std::thread sending([&] { local.send(data); });
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
    EXPECT_TRUE(local.read(data.size()) == data);
    typing.join();
}

TEST_F(VncBridgeTest, ATextFrameIsIgnored) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.peer->send(WsFrame{1, "not for the server"});
    viewer.peer->send(WsFrame{2, "for it"});
    EXPECT_EQ(local.read(6), "for it");
}

TEST_F(VncBridgeTest, WithoutAScreenServerTheConnectionOpensAndEnds) {
    unsigned short const gone = test::Listener().port();
    Viewer viewer(bridges_, gone);
    EXPECT_TRUE(viewer.is_open());
    EXPECT_EQ(viewer.peer->read(1), "");
}

TEST_F(VncBridgeTest, AWrongHandshakeIsAClosedSocketAndNobodyIsDialled) {
    HttpRequest request = test::sample_handshake();
    request.headers["connection"] = "keep-alive";
    Viewer viewer(bridges_, screen_.port(), request);
    EXPECT_EQ(viewer.peer->read(1), "");
    Viewer next(bridges_, screen_.port());
    test::Peer local = screen_.accept(); // the first that came
    ASSERT_TRUE(next.is_open());
    next.peer->send(WsFrame{2, "hello"});
    EXPECT_EQ(local.read(5), "hello");
}

TEST_F(VncBridgeTest, AfterTheLocalServersEndPingsAreAnsweredUntilTheNextMessage) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    ASSERT_TRUE(local.send("last"));
    local.hang_up();
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
        screen_.accept().hang_up();
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
        ASSERT_EQ(screen_.accept().read(6), "first");
    }
}

TEST_F(VncBridgeTest, TheViewersEndEndsTheLocalConnection) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.peer->close();
    EXPECT_EQ(local.read(1), "");
}

/// A screen server that takes no more connections, and does not refuse them either.
class StuckServer {
public:
    StuckServer() : first_(knock()), second_(knock()) {}
    unsigned short port() const { return server_.port(); }

private:
    /// A client's socket; the attempt is under way if the server's queue is full.
    tessaron::UniqueFd knock() const {
        tessaron::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port());
        ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address);
        return fd;
    }

    test::Listener server_{0, 0};
    tessaron::UniqueFd first_;
    tessaron::UniqueFd second_;
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
    test::Peer const local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    viewer.fill();
    viewer.peer->close();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
}

TEST_F(VncBridgeTest, ASlowServerGetsAllThatItsViewerSentBeforeItLeft) {
    Viewer viewer(bridges_, screen_.port());
    test::Peer local = screen_.accept();
    ASSERT_TRUE(viewer.is_open());
    std::size_t const sent = viewer.fill();
    viewer.peer->close();
    EXPECT_EQ(local.read(sent).size(), sent);
}

TEST_F(VncBridgeTest, AStopEndsEveryBridgeWhateverItIsBlockedIn) {
    Viewer silent(bridges_, screen_.port());
    test::Peer const silent_local = screen_.accept();
    ASSERT_TRUE(silent.is_open());
    Viewer slow(bridges_, screen_.port());
    test::Peer fast_local = screen_.accept();
    ASSERT_TRUE(slow.is_open());
    // More than the buffers hold: the bridge is stuck in its send to the viewer.
    std::thread flood([&] { fast_local.send(std::string(64U << 20U, 'x')); });
    bridges_.request_stop();
    EXPECT_TRUE(bridges_.wait_until_ended(std::chrono::seconds(20)));
    flood.join();
    EXPECT_EQ(silent.peer->read(1), "");
    Viewer late(bridges_, screen_.port());
    EXPECT_EQ(late.peer->read(1), "");
}

} // namespace
} // namespace mirelclient
