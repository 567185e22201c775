// The connection: dialling, registering, losing and stopping.

#include "tests/unit/MirelClientApp/tunnel/TunnelClientTest.hpp"

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace mirelclient::test {
namespace {

using tessaron::test::wait_until;

TEST_F(TunnelClientTest, TheFirstFrameIsTheNameInBareBytes) {
    start_client();
    EXPECT_EQ(server.accept().read(14), std::string("\x01\0\0\0\0\0\0\0\5a box", 14));
}

TEST_F(TunnelClientTest, WithoutAnAddressNoThreadStarts) {
    std::size_t const before = thread_count();
    TunnelClient idle("", "box", 1, 2);
    idle.start();
    EXPECT_LE(thread_count(), before);
    idle.stop();
}

TEST_F(TunnelClientTest, AnAddressWithoutHostOrPortIsTriedInVainAndStops) {
    for (char const* address : {"example:", ":1234", "plain", ":"}) {
        TunnelClient vain(address, "box", 1, 2, &PtySession::spawn, K_SHORT_PAUSE);
        vain.start();
        wait_until([] { return threads_named("tunnel") == 1; }, "it tries");
        vain.stop();
        wait_until([] { return threads_named("tunnel") == 0; }, "it has stopped");
    }
}

TEST_F(TunnelClientTest, TheDelayBetweenConnectionsIsFiveSeconds) {
    EXPECT_EQ(TunnelClient::K_RECONNECT_DELAY, std::chrono::seconds(5));
}

TEST_F(TunnelClientTest, AStopDuringThePauseReturns) {
    TunnelClient refused("127.0.0.1:1", "box", 1, 2, &PtySession::spawn, std::chrono::hours(1));
    refused.start();
    refused.stop();
    wait_until([] { return threads_named("tunnel") == 0; }, "the thread is gone");
}

TEST_F(TunnelClientTest, AnotherConnectionFollowsALostOne) {
    auto first = start_and_accept();
    first.hang_up();
    auto second = accept_tunnel();
    second.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, AServerThatComesLateIsFound) {
    auto late = std::make_unique<Listener>();
    std::string const address = late->address();
    auto const port = late->port();
    late.reset();
    TunnelClient waiting(address, "a box", 1, 2, &PtySession::spawn, K_SHORT_PAUSE);
    waiting.start();
    wait_until([] { return threads_named("tunnel") == 1; }, "it dials");
    Listener arrived(0, 16, port);
    EXPECT_EQ(arrived.accept<TunnelPeer>().read_frame(), (Received{FRAME_REGISTER, 0, "a box"}));
}

TEST_F(TunnelClientTest, ASecondStartOpensNoSecondConnection) {
    auto tunnel = start_and_accept();
    std::size_t const before = thread_count();
    client->start();
    EXPECT_LE(thread_count(), before);
}

TEST_F(TunnelClientTest, AStoppedClientCanBeStartedAgain) {
    auto first = start_and_accept();
    client->stop();
    client->stop();
    EXPECT_TRUE(first.is_at_end());
    client->start();
    accept_tunnel().expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, ANameIsResolved) {
    client = std::make_unique<TunnelClient>("localhost:" + std::to_string(server.port()), "a box",
                                            1, 2, &PtySession::spawn, K_SHORT_PAUSE);
    client->start();
    accept_tunnel().expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, APayloadOfFourMebibytesIsAccepted) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.send_data(9, std::string(4'194'304, 'x')));
    tunnel.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, OneByteMoreDropsTheConnectionAndAnotherFollows) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(5, "vnc"));
    Peer backend = vnc.accept();
    auto const header = encode_header({FRAME_DATA, 5, 4'194'305});
    ASSERT_TRUE(tunnel.send({header.data(), header.size()}));
    EXPECT_TRUE(backend.is_at_end());
    while (tunnel.read_frame().type == FRAME_CLOSE) {
        // The stream's thread may have been the quicker one.
    }
    EXPECT_TRUE(tunnel.is_at_end());
    accept_tunnel().expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, UnknownTypesAreReadAndIgnored) {
    auto tunnel = start_and_accept();
    for (int const type : {0, 1, 5, 255}) {
        ASSERT_TRUE(tunnel.send_frame(static_cast<std::uint8_t>(type), 3, "console"));
    }
    tunnel.expect_nothing_but_marker();
}

TEST_F(TunnelClientTest, FramesMayComeInPieces) {
    auto tunnel = start_and_accept();
    for (char const byte : encode_frame(FRAME_OPEN, 7, "ftp")) {
        ASSERT_TRUE(tunnel.send({&byte, 1}));
    }
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 7, ""}));
}

TEST_F(TunnelClientTest, AStopWakesAThreadThatWaitsForTheServer) {
    auto tunnel = start_and_accept();
    tunnel.expect_nothing_but_marker();
    client->stop();
    EXPECT_TRUE(tunnel.is_at_end());
}

TEST_F(TunnelClientTest, AStopWakesTheMiddleOfAFrame) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.send(encode_frame(FRAME_DATA, 1, "half of it").substr(0, 12)));
    client->stop();
    EXPECT_TRUE(tunnel.is_at_end());
}

TEST_F(TunnelClientTest, AStopEndsAnAttemptThatIsNotAnswered) {
    // The system answers for a listener until its queue is full, and then not at all.
    Listener full(0, 0);
    TunnelClient first(full.address(), "box", 1, 2);
    TunnelClient second(full.address(), "box", 1, 2);
    TunnelClient third(full.address(), "box", 1, 2);
    for (TunnelClient* each : {&first, &second, &third}) {
        each->start();
    }
    wait_until([&full] { return is_being_dialled(full.port()); }, "an attempt hangs");
    for (TunnelClient* each : {&first, &second, &third}) {
        each->stop();
    }
    wait_until([] { return threads_named("tunnel") == 0; }, "the thread is gone");
}

TEST_F(TunnelClientTest, AStopReturnsWhileTheServerDoesNotRead) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    std::thread source([&backend] {
        std::string const piece(1 << 20, 'x');
        while (backend.send(piece)) {
        }
    });
    // Until nothing more fits in: the stream's thread is in its write then.
    wait_until([&tunnel] { return is_full(tunnel.fd()); }, "nothing moves any more");
    client->stop();
    source.join();
}

TEST_F(TunnelClientTest, AStopReturnsWhileABackendDoesNotRead) {
    auto tunnel = start_and_accept();
    ASSERT_TRUE(tunnel.open(1, "vnc"));
    Peer backend = vnc.accept();
    std::thread source = fill_backend(tunnel, 1, backend);
    client->stop();
    source.join();
}

} // namespace
} // namespace mirelclient::test
