// Streams to the web API and the VNC server.

#include "tests/unit/MirelClientApp/tunnel/TunnelClientTest.hpp"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace mirelclient::test {
namespace {

using tessaron::test::wait_until;

/// So many bytes that no two places of, and that no two seeds share.
std::string pattern(std::size_t size, std::uint32_t seed) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        seed = seed * 1'664'525 + 1'013'904'223;
        bytes[i] = static_cast<char>(seed >> 24U);
    }
    return bytes;
}

TEST_F(TunnelClientTest, AnUnknownTargetIsClosedOnTheSameStream) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(0x01020304, "ftp"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 0x01020304, ""}));
    ASSERT_TRUE(tunnel.open(2, ""));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 2, ""}));
    ASSERT_TRUE(tunnel.open(3, "HTTP"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 3, ""}));
}

TEST_F(TunnelClientTest, AVncStreamWithoutAServerIsClosed) {
    std::uint16_t const gone = Listener().port();
    client = std::make_unique<TunnelClient>(server.address(), "a box", web.port(), gone);
    client->start();
    auto tunnel = accept_tunnel();
    ASSERT_TRUE(tunnel.open(8, "vnc"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 8, ""}));
}

TEST_F(TunnelClientTest, EachTargetHasItsPort) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "http"));
    ASSERT_TRUE(tunnel.open(2, "vnc"));
    Peer web_backend = web.accept();
    Peer vnc_backend = vnc.accept();
    ASSERT_TRUE(tunnel.send_data(1, "for the web"));
    ASSERT_TRUE(tunnel.send_data(2, "for the screen"));
    EXPECT_EQ(web_backend.read(11), "for the web");
    EXPECT_EQ(vnc_backend.read(14), "for the screen");
}

TEST_F(TunnelClientTest, ABackendsAnswerComesBackAndItsEndClosesTheStream) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "http"));
    Peer backend = web.accept();
    ASSERT_TRUE(backend.send("an answer"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_DATA, 1, "an answer"}));
    backend.hang_up();
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 1, ""}));
}

TEST_F(TunnelClientTest, NoFrameHoldsMoreThanOneReadOfABackend) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "http"));
    Peer backend = web.accept();
    std::string const sent = pattern(500'000, 1);
    std::thread source([&] {
        EXPECT_TRUE(backend.send(sent));
        backend.hang_up();
    });
    std::string received;
    Received frame = tunnel.read_frame();
    for (; frame.type == FRAME_DATA; frame = tunnel.read_frame()) {
        EXPECT_LE(frame.payload.size(), 32'768U);
        received += frame.payload;
    }
    source.join();
    EXPECT_EQ(frame.type, FRAME_CLOSE);
    EXPECT_TRUE(received == sent);
}

TEST_F(TunnelClientTest, ACloseEndsTheBackendAndIsReturned) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    ASSERT_TRUE(tunnel.close(1));
    EXPECT_TRUE(backend.is_at_end());
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 1, ""}));
    tunnel.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, ASecondCloseAndOneOfAnUnknownStreamAreHarmless) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    ASSERT_TRUE(tunnel.close(1));
    ASSERT_TRUE(tunnel.close(1));
    ASSERT_TRUE(tunnel.close(77));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 1, ""}));
    tunnel.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, DataOfAClosedOrUnknownStreamIsDroppedWithoutAnswer) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    ASSERT_TRUE(tunnel.close(1));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 1, ""}));
    ASSERT_TRUE(tunnel.send_data(1, "too late"));
    ASSERT_TRUE(tunnel.send_data(42, "who?"));
    tunnel.expect_nothing_but_marker();
    EXPECT_TRUE(backend.is_at_end());
}

TEST_F(TunnelClientTest, EmptyDataIsNoData) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    ASSERT_TRUE(tunnel.send_data(1, "") && tunnel.send_data(1, "x"));
    EXPECT_EQ(backend.read(1), "x");
}

TEST_F(TunnelClientTest, AnIdThatIsOpenedAgainBelongsToTheNewStreamAlone) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer old_backend = vnc.accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    EXPECT_TRUE(old_backend.is_at_end());
    old_backend.hang_up();
    wait_until([] { return threads_named("tunnel-stream") == 1; }, "the old stream has ended");
    ASSERT_TRUE(backend.send("mine"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_DATA, 1, "mine"}));
    ASSERT_TRUE(tunnel.send_data(1, "yours"));
    EXPECT_EQ(backend.read(5), "yours");
}

TEST_F(TunnelClientTest, StreamsEndWithTheirConnectionAndTheNextOneBeginsWithNone) {
    auto first = start_and_accept();
    ASSERT_TRUE(first.open(1, "vnc"));
    Peer backend = vnc.accept();
    first.hang_up();
    EXPECT_TRUE(backend.is_at_end());
    auto second = accept_tunnel();
    ASSERT_TRUE(second.send_data(1, "who?"));
    second.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, FramesOfManyStreamsAreNeverMixed) {
    constexpr std::uint32_t streams = 6;
    constexpr std::size_t size = 5'000'000;
    auto tunnel = start_and_accept();
    std::vector<std::thread> sources;
    for (std::uint32_t id = 0; id < streams; ++id) {
        ASSERT_TRUE(tunnel.open(id, "http"));
        sources.emplace_back([id, backend = web.accept()]() mutable {
            EXPECT_TRUE(backend.send(pattern(size, id)));
            backend.hang_up();
        });
    }
    std::map<std::uint32_t, std::string> received;
    for (std::uint32_t open = streams; open > 0;) {
        Received const frame = tunnel.read_frame();
        ASSERT_TRUE(frame.stream < streams &&
                    (frame.type == FRAME_DATA || frame.type == FRAME_CLOSE));
        received[frame.stream] += frame.payload;
        open -= frame.type == FRAME_CLOSE ? 1 : 0;
    }
    for (std::thread& source : sources) {
        source.join();
    }
    for (std::uint32_t id = 0; id < streams; ++id) {
        EXPECT_TRUE(received[id] == pattern(size, id)) << id;
    }
}

TEST_F(TunnelClientTest, ManyBytesReachTheBackendAsTheyAre) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    std::string const sent = pattern(9'000'000, 3);
    std::thread source([&] {
        for (std::size_t at = 0; at < sent.size(); at += 3'000'000) {
            EXPECT_TRUE(tunnel.send_data(1, std::string_view(sent).substr(at, 3'000'000)));
        }
    });
    EXPECT_TRUE(backend.read(sent.size()) == sent);
    source.join();
}

TEST_F(TunnelClientTest, AResetIsNoticedWhileABackendDoesNotRead) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    std::thread source = fill_backend(tunnel, 1, backend);
    shutdown(tunnel.fd(), SHUT_RDWR);
    source.join();
    tunnel.reset();
    accept_tunnel().expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, AThousandStreamsLeaveNoDescriptorsAndNoThreads) {
    auto tunnel = start_and_accept();
    tunnel.expect_nothing_but_marker();
    std::size_t const descriptors = descriptor_count();
    std::size_t const threads = thread_count();
    for (std::uint32_t id = 0; id < 1'000; ++id) {
        ASSERT_TRUE(tunnel.open(id, id % 2 == 0 ? "http" : "vnc"));
        Peer backend = id % 2 == 0 ? web.accept() : vnc.accept();
        ASSERT_TRUE(backend.send("x"));
        ASSERT_EQ(tunnel.read_frame(), (Received{FRAME_DATA, id, "x"}));
        // Both sides, in turn.
        if (id % 3 == 0) {
            backend.hang_up();
        } else {
            ASSERT_TRUE(tunnel.close(id));
        }
        ASSERT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, id, ""}));
    }
    wait_until([&] { return descriptor_count() <= descriptors; }, "all descriptors are closed");
    wait_until([&] { return thread_count() <= threads; }, "all threads have ended");
}

TEST_F(TunnelClientTest, ManyOpenStreamsEndWithTheClient) {
    auto tunnel = start_and_accept();
    std::vector<Peer> backends;
    for (std::uint32_t id = 0; id < 50; ++id) {
        ASSERT_TRUE(tunnel.open(id, "vnc"));
        backends.push_back(vnc.accept());
    }
    client->stop();
    for (Peer& backend : backends) {
        EXPECT_TRUE(backend.is_at_end());
    }
    EXPECT_TRUE(client->wait_until_streams_ended(std::chrono::seconds(20)));
}

TEST_F(TunnelClientTest, ABackendThatHangsInItsDialDoesNotHoldUpAStop) {
    Listener full(0, 0);
    client = std::make_unique<TunnelClient>(server.address(), "a box", web.port(), full.port());
    client->start();
    auto tunnel = accept_tunnel();
    // The queue takes one; who comes next gets no answer.
    for (std::uint32_t id = 0; id < 3; ++id) {
        ASSERT_TRUE(tunnel.open(id, "vnc"));
    }
    wait_until([&full] { return is_being_dialled(full.port()); }, "a dial hangs");
    client->stop();
}

} // namespace
} // namespace mirelclient::test
