#include "MirelClientApp/tunnel/TunnelConnection.hpp"

#include "MirelClientApp/tunnel/tunnel_dial.hpp"
#include "tests/support/wait_until.hpp"
#include "tests/unit/MirelClientApp/tunnel/TunnelPeer.hpp"

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <string>
#include <thread>

namespace mirelclient::test {
namespace {

using tessaron::test::wait_until;

/// Probes are answered twice a second at most.
constexpr std::chrono::milliseconds K_SHORT_LIMIT{2'500};

/// A small receive buffer is a small window.
constexpr int K_SMALL_BUFFER = 4096;

int option_of(int socket, int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(socket, level, name, &value, &size), 0);
    return value;
}

struct TunnelConnectionTest : testing::Test {
    explicit TunnelConnectionTest(int receive_buffer = 0)
        : listener(receive_buffer), socket(dial(listener.address(), {})), fd(socket.get()),
          peer(listener.accept<TunnelPeer>()) {}

    Listener listener;
    tessaron::UniqueFd socket;
    int fd;
    TunnelPeer peer;
};

TEST_F(TunnelConnectionTest, ALostNetworkIsLeftToTheSystem) {
    TunnelConnection const connection(std::move(socket));
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_KEEPIDLE), 5);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_KEEPCNT), 3);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_USER_TIMEOUT), 15'000);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST_F(TunnelConnectionTest, FramesGoOutAsTheTableSays) {
    TunnelConnection connection(std::move(socket));
    ASSERT_TRUE(connection.send_frame(FRAME_DATA, 0x01020304, "abc"));
    ASSERT_TRUE(connection.send_console_frame(5, "de"));
    EXPECT_EQ(peer.read(12), std::string("\3\1\2\3\4\0\0\0\3abc", 12));
    EXPECT_EQ(peer.read(16), std::string("\3\0\0\0\5\0\0\0\7\1\0\0\0\2de", 16));
}

TEST_F(TunnelConnectionTest, FramesAreReadWhole) {
    TunnelConnection connection(std::move(socket));
    ASSERT_TRUE(peer.send_data(7, "payload") && peer.close(8));
    auto const first = connection.read_frame();
    auto const second = connection.read_frame();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->header, (FrameHeader{FRAME_DATA, 7, 7}));
    EXPECT_EQ(first->payload, "payload");
    EXPECT_EQ(second->header, (FrameHeader{FRAME_CLOSE, 8, 0}));
}

TEST_F(TunnelConnectionTest, AFrameThatIsCutShortIsNone) {
    TunnelConnection connection(std::move(socket));
    ASSERT_TRUE(peer.send(encode_frame(FRAME_DATA, 1, "payload").substr(0, 13)));
    peer.hang_up();
    EXPECT_FALSE(connection.read_frame());
}

TEST_F(TunnelConnectionTest, AnOversizedFrameIsNone) {
    TunnelConnection connection(std::move(socket));
    auto const header = encode_header({FRAME_DATA, 1, K_MAX_FRAME_PAYLOAD + 1});
    ASSERT_TRUE(peer.send({header.data(), header.size()}));
    EXPECT_FALSE(connection.read_frame());
}

TEST_F(TunnelConnectionTest, AfterAShutdownNothingIsSent) {
    TunnelConnection connection(std::move(socket));
    connection.shutdown();
    EXPECT_FALSE(connection.send_frame(FRAME_CLOSE, 1, {}));
    EXPECT_FALSE(connection.read_frame());
    EXPECT_TRUE(peer.is_at_end());
}

/// With a peer that closes its window.
struct TunnelConnectionWindowTest : TunnelConnectionTest {
    TunnelConnectionWindowTest() : TunnelConnectionTest(K_SMALL_BUFFER) {}
};

TEST_F(TunnelConnectionWindowTest, APeerThatIsSlowToReadIsNotTakenForADeadOne) {
    // What the system does to connections that nobody looks at is the measure.
    struct Unwatched {
        Unwatched(Listener& listener, std::chrono::milliseconds limit, std::string const& data)
            : socket(dial(listener.address(), {})), peer(listener.accept()),
              options(socket.get(), limit) {
            std::ignore = ::send(socket.get(), data.data(), data.size(), MSG_NOSIGNAL);
        }
        bool is_given_up() const {
            return option_of(socket.get(), SOL_SOCKET, SO_ERROR) == ETIMEDOUT;
        }
        tessaron::UniqueFd socket;
        Peer peer;
        WindowWatch options;
    };
    std::string const sent(8'000'000, 'x');
    TunnelLiveness impatient;
    impatient.answer_limit = K_SHORT_LIMIT;
    impatient.look_period = K_SHORT_LIMIT / 5;
    TunnelConnection connection(std::move(socket), impatient);
    std::thread source([&] { EXPECT_TRUE(connection.send_frame(FRAME_DATA, 1, sent)); });
    Unwatched const same(listener, K_SHORT_LIMIT, sent);
    Unwatched const patient(listener, 2 * K_SHORT_LIMIT, sent);
    wait_until([&patient] { return patient.is_given_up(); }, "twice the limit has passed");
    EXPECT_TRUE(same.is_given_up());
    EXPECT_EQ(peer.read_frame(), (Received{FRAME_DATA, 1, sent}));
    source.join();
}

} // namespace
} // namespace mirelclient::test
