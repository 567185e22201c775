#include "tests/unit/libraries/interfaces/ThreadState.hpp"
#include "tests/unit/libraries/interfaces/tcp/TcpTest.hpp"

#include <sys/syscall.h>

namespace {

using namespace proto::interface::test;
using namespace std::chrono_literals;
using proto::interface::TcpServerInterface;
using tessaron::test::wait_until;
using Texts = std::vector<std::string>;

constexpr std::size_t K_PIECE = 64 * 1024;

/// Writes until the client that does not read is gone, or the server.
void write_until_alone(TcpServerInterface& server, std::size_t clients_left) {
    std::string const piece(K_PIECE, 'x');
    while (server.is_open() && server.client_count() > clients_left) {
        write(server, piece);
    }
}

/// Returns when the writer waits for a client that takes no more.
std::thread start_writer_that_waits(TcpServerInterface& server) {
    auto const id = std::make_shared<std::atomic<pid_t>>(0);
    std::thread writer([&server, id] {
        *id = ::gettid();
        write_until_alone(server, 0);
    });
    wait_until([&] { return *id != 0; }, "the writer runs");
    wait_until_blocked_in(*id, SYS_poll);
    return writer;
}

TEST(TcpServerSend, AFrameIsWholeOnceItEnds) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const client(server.port());
    wait_for_clients(server, 1);
    server.begin_frame();
    EXPECT_TRUE(write(server, "head "));
    EXPECT_TRUE(write(server, "body"));
    EXPECT_TRUE(client.is_silent());
    server.end_frame();
    EXPECT_EQ(client.read(9), "head body");
    write_frame(server, {});
    write(server, "marker");
    EXPECT_EQ(client.read(6), "marker");
}

TEST(TcpServerSend, FramesOfSeveralWritersNeverMix) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const client(server.port());
    wait_for_clients(server, 1);
    constexpr std::size_t K_WRITERS = 4;
    constexpr std::size_t K_FRAMES = 100;
    std::vector<std::thread> writers;
    for (std::size_t w = 0; w < K_WRITERS; ++w) {
        writers.emplace_back([&server, letter = static_cast<char>('a' + w)] {
            for (std::size_t i = 0; i < K_FRAMES; ++i) {
                write_frame(server, Texts(5, std::string(20, letter)));
            }
        });
    }
    for (std::size_t i = 0; i < K_WRITERS * K_FRAMES; ++i) {
        std::string const frame = client.read(100);
        ASSERT_EQ(frame, std::string(100, frame.empty() ? '?' : frame[0])) << "frame " << i;
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
}

TEST(TcpServerSend, AClientThatDoesNotReadLosesItsConnectionAndTheOthersLoseNothing) {
    TcpServerInterface server(20ms);
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const silent(server.port(), 4096);
    TcpClient const reading(server.port());
    wait_for_clients(server, 2);
    std::atomic<std::size_t> written{0};
    std::thread writer([&] {
        std::string piece(K_PIECE, 'x');
        while (server.client_count() > 1) {
            EXPECT_TRUE(write(server, piece)) << "the one that reads took it";
            written += piece.size();
        }
        piece.back() = 'e';
        write(server, piece);
        written += piece.size();
    });
    std::string received;
    while (received.empty() || received.back() != 'e') {
        std::string const piece = reading.read(K_PIECE);
        ASSERT_EQ(piece.size(), K_PIECE);
        received += piece;
    }
    writer.join();
    EXPECT_EQ(received.size(), written);
    EXPECT_EQ(server.client_count(), 1U);
}

TEST(TcpServerSend, SeveralClientsThatDoNotReadAreWaitedForTogether) {
    TcpServerInterface server(20ms);
    ASSERT_TRUE(server.open_tcp(0));
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::make_unique<TcpClient>(server.port(), 4096));
    }
    wait_for_clients(server, clients.size());
    write_until_alone(server, 0);
    EXPECT_FALSE(write(server, "nobody is left"));
}

TEST(TcpServerSend, AClientThatReadsSlowlyGetsEverything) {
    TcpServerInterface server(1h);
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const client(server.port(), 4096);
    wait_for_clients(server, 1);
    constexpr std::size_t K_PIECES = 200;
    std::thread writer([&] {
        for (std::size_t i = 0; i < K_PIECES; ++i) {
            EXPECT_TRUE(write(server, std::string(K_PIECE, static_cast<char>('a' + i % 26))));
        }
    });
    for (std::size_t i = 0; i < K_PIECES; ++i) {
        ASSERT_EQ(client.read(K_PIECE), std::string(K_PIECE, static_cast<char>('a' + i % 26)));
    }
    writer.join();
}

TEST(TcpServerSend, CloseWakesAWriterThatWaitsForAClient) {
    TcpServerInterface server(1h);
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const silent(server.port(), 4096);
    wait_for_clients(server, 1);
    std::thread writer = start_writer_that_waits(server);
    server.close();
    writer.join();
}

TEST(TcpServerSend, AClientThatLeavesWakesAWriterThatWaitsForIt) {
    TcpServerInterface server(1h);
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient silent(server.port(), 4096);
    wait_for_clients(server, 1);
    std::thread writer = start_writer_that_waits(server);
    silent.abort();
    writer.join();
    EXPECT_TRUE(server.is_open());
}

} // namespace
