// Streams to shells.

#include "tests/unit/MirelClientApp/tunnel/TunnelClientTest.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace mirelclient::test {
namespace {

using tessaron::test::wait_until;

struct TunnelConsoleTest : TunnelClientTest {
    TunnelPeer open_console() {
        auto tunnel = start_and_accept();
        EXPECT_TRUE(tunnel.open(1, "console"));
        return tunnel;
    }
    static bool type(TunnelPeer& tunnel, std::string const& text) {
        return tunnel.send_data(1, sub_frame(CONSOLE_BYTES, text));
    }
    /// The echo of what is typed must not pass for its output, so that is put together by the
    /// shell.
    static pid_t shell_pid(TunnelPeer& tunnel) {
        EXPECT_TRUE(type(tunnel, "echo pid''=$$ e''nd\n"));
        std::string const output = read_console_until(tunnel, 1, " end\r\n");
        return std::stoi(output.substr(output.rfind("pid=") + 4));
    }
    static bool is_gone(pid_t pid) { return kill(pid, 0) != 0; }
};

TEST_F(TunnelConsoleTest, AShellAnswersInSubFrames) {
    auto tunnel = open_console();
    ASSERT_TRUE(type(tunnel, "echo a''nswer\n"));
    read_console_until(tunnel, 1, "answer\r\n");
}

TEST_F(TunnelConsoleTest, ASubFrameSplitOverFramesReachesTheShellWhole) {
    auto tunnel = open_console();
    std::string const bytes = sub_frame(CONSOLE_BYTES, "echo a''nswer\n");
    ASSERT_TRUE(tunnel.send_data(1, bytes.substr(0, 3)));
    ASSERT_TRUE(tunnel.send_data(1, bytes.substr(3, 7)));
    ASSERT_TRUE(tunnel.send_data(1, bytes.substr(10)));
    read_console_until(tunnel, 1, "answer\r\n");
}

TEST_F(TunnelConsoleTest, ATerminalIsResized) {
    auto tunnel = open_console();
    ASSERT_TRUE(tunnel.send_data(1, sub_frame(CONSOLE_RESIZE, std::string("\x01\x02\0\x28", 4)) +
                                        sub_frame(CONSOLE_BYTES, "stty size\n")));
    read_console_until(tunnel, 1, "40 258\r\n");
}

TEST_F(TunnelConsoleTest, AResizeOfAnotherLengthAndUnknownKindsAreDroppedAndTheRestGoesOn) {
    auto tunnel = open_console();
    ASSERT_TRUE(
        tunnel.send_data(1, sub_frame(CONSOLE_RESIZE, "abc") + sub_frame(CONSOLE_RESIZE, "abcde") +
                                sub_frame(9, "exit\n") + sub_frame(CONSOLE_BYTES, "stty size\n")));
    read_console_until(tunnel, 1, "24 80\r\n");
}

TEST_F(TunnelConsoleTest, TheEndOfTheShellClosesTheStream) {
    auto tunnel = open_console();
    ASSERT_TRUE(type(tunnel, "exit\n"));
    expect_console_close(tunnel, 1);
    ASSERT_TRUE(type(tunnel, "anyone?\n"));
    tunnel.expect_nothing_but_marker();
}

TEST_F(TunnelConsoleTest, ACloseHangsTheShellUpAndIsReturned) {
    auto tunnel = open_console();
    pid_t const pid = shell_pid(tunnel);
    ASSERT_TRUE(tunnel.close(1));
    expect_console_close(tunnel, 1);
    EXPECT_TRUE(is_gone(pid)) << "the close is sent when the shell was waited for";
}

TEST_F(TunnelConsoleTest, TheEndOfTheConnectionHangsTheShellUp) {
    auto tunnel = open_console();
    pid_t const pid = shell_pid(tunnel);
    tunnel.hang_up();
    wait_until([pid] { return is_gone(pid); }, "the shell is gone");
}

TEST_F(TunnelConsoleTest, AShellThatCannotBeStartedClosesTheStream) {
    auto tunnel =
        start_and_accept([](std::stop_token const&) { return std::unique_ptr<PtySession>(); });
    ASSERT_TRUE(tunnel.open(6, "console"));
    EXPECT_EQ(tunnel.read_frame(), (Received{FRAME_CLOSE, 6, ""}));
}

TEST_F(TunnelConsoleTest, AShellThatIgnoresTheHangUpHoldsUpNobody) {
    auto tunnel = open_console();
    pid_t const pid = shell_pid(tunnel);
    // An interactive shell would end when it finds its terminal gone.
    ASSERT_TRUE(type(tunnel, "exec sh -c \"trap '' HUP; echo r''eady; sleep 1000; :\"\n"));
    read_console_until(tunnel, 1, "ready");
    ASSERT_TRUE(tunnel.close(1));
    ASSERT_TRUE(tunnel.open(2, "vnc"));
    Peer backend = vnc.accept();
    ASSERT_TRUE(backend.send("still here"));
    Received frame = tunnel.read_frame();
    while (frame.type == FRAME_DATA && frame.stream == 1) {
        frame = tunnel.read_frame();
    }
    EXPECT_EQ(frame, (Received{FRAME_DATA, 2, "still here"}));
    EXPECT_FALSE(is_gone(pid));
    client->stop();
    wait_until([pid] { return is_gone(pid); }, "a stop ends the shell by force");
}

TEST_F(TunnelConsoleTest, AStopReturnsWhileATerminalTakesNoInput) {
    auto tunnel = open_console();
    ASSERT_TRUE(type(tunnel, "stty raw -echo; echo r''eady; exec sleep 1000\n"));
    read_console_until(tunnel, 1, "ready");
    std::thread source([&tunnel] {
        std::string const piece(100'000, 'x');
        while (type(tunnel, piece)) {
        }
    });
    // A marker is answered for as long as the input is taken.
    wait_until([&tunnel] { return send_queue_is_stuck(tunnel.fd()); }, "the input is full");
    client->stop();
    source.join();
}

TEST_F(TunnelConsoleTest, ATalkativeShellEndsWithItsStream) {
    auto tunnel = open_console();
    ASSERT_TRUE(type(tunnel, "yes\n"));
    read_console_until(tunnel, 1, "y\r\ny\r\n");
    ASSERT_TRUE(tunnel.close(1));
    expect_console_close(tunnel, 1);
}

TEST_F(TunnelConsoleTest, ManyShellsLeaveNothingBehind) {
    auto tunnel = start_and_accept();
    tunnel.expect_nothing_but_marker();
    std::size_t const descriptors = descriptor_count();
    std::size_t const threads = thread_count();
    for (std::uint32_t id = 1; id <= 30; ++id) {
        ASSERT_TRUE(tunnel.open(id, "console"));
        ASSERT_TRUE(tunnel.send_data(id, sub_frame(CONSOLE_BYTES, "echo a''nswer\n")));
        read_console_until(tunnel, id, "answer\r\n");
        ASSERT_TRUE(tunnel.close(id));
        expect_console_close(tunnel, id);
    }
    wait_until([&] { return descriptor_count() == descriptors; }, "all descriptors are closed");
    wait_until([&] { return thread_count() == threads; }, "all threads have ended");
}

} // namespace
} // namespace mirelclient::test
