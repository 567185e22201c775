#include "MirelClientApp/web/WsConnection.hpp"

#include "tests/support/WsPeer.hpp"
#include "tests/support/wait_until.hpp"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace mirelclient {
namespace {

using test::WsFrame;

constexpr std::size_t K_MEBIBYTE = 1024 * 1024;

/// A connection and its browser, in one thread: what the browser sends waits in the socket.
class WsConnectionTest : public testing::Test {
protected:
    /// The next message as opcode and text; -1 for none.
    std::pair<int, std::string> read() {
        auto const message = connection_->read_message();
        if (!message) {
            return {-1, ""};
        }
        return {message->first, std::string(message->second.begin(), message->second.end())};
    }
    std::pair<int, std::string> answer_to(std::string const& bytes) {
        std::thread sender([&] { peer_.send(bytes); });
        auto message = read();
        sender.join();
        return message;
    }
    bool write(int opcode, std::string_view text) {
        return connection_->write_message(static_cast<std::uint8_t>(opcode), text.data(),
                                          text.size());
    }
    void expect_end_without_close_frame() {
        EXPECT_EQ(read().first, -1);
        connection_.reset();
        EXPECT_EQ(peer_.read_frame(), std::nullopt);
    }

    test::SocketPair pair_;
    std::unique_ptr<WsConnection> connection_ = std::make_unique<WsConnection>(pair_.ends[0]);
    test::WsPeer peer_{pair_.ends[1]};
};

using Message = std::pair<int, std::string>;

TEST_F(WsConnectionTest, TakesTheMaskAway) {
    EXPECT_EQ(answer_to(WsFrame{2, "keystrokes"}.bytes()), Message(2, "keystrokes"));
    EXPECT_EQ(answer_to(WsFrame{1, "{}"}.bytes()), Message(1, "{}"));
}

TEST_F(WsConnectionTest, AcceptsAFrameWithoutAMask) {
    EXPECT_EQ(answer_to(WsFrame{2, "bare", true, false}.bytes()), Message(2, "bare"));
}

TEST_F(WsConnectionTest, ReadsEveryFormOfLength) {
    for (std::size_t size : {0U, 1U, 125U, 126U, 4095U, 4096U, 65535U, 65536U, 100'000U}) {
        std::string const text(size, 'l');
        EXPECT_EQ(answer_to(WsFrame{2, text}.bytes()), Message(2, text)) << size;
    }
    std::string const longer_than_needed("\x82\x7f\0\0\0\0\0\0\0\x03"
                                         "abc",
                                         13);
    EXPECT_EQ(answer_to(longer_than_needed), Message(2, "abc"));
}

TEST_F(WsConnectionTest, ReadsFramesThatComeTogetherAndInPieces) {
    peer_.send(WsFrame{2, "one"}.bytes() + WsFrame{2, "two"}.bytes() + WsFrame{2, "three"}.bytes());
    EXPECT_EQ(read().second, "one");
    EXPECT_EQ(read().second, "two");
    EXPECT_EQ(read().second, "three");
    std::string const bytes = WsFrame{2, std::string(300, 'p')}.bytes();
    std::thread sender([&] {
        for (char const byte : bytes) {
            peer_.send(std::string(1, byte));
        }
    });
    EXPECT_EQ(read().second, std::string(300, 'p'));
    sender.join();
}

TEST_F(WsConnectionTest, IgnoresTheReservedBits) {
    std::string frame = WsFrame{2, "x"}.bytes();
    frame[0] = static_cast<char>(frame[0] | 0x70);
    EXPECT_EQ(answer_to(frame), Message(2, "x"));
}

TEST_F(WsConnectionTest, TakesOneMebibyteAndNotOneByteMore) {
    std::string const largest(K_MEBIBYTE, 'm');
    EXPECT_EQ(answer_to(WsFrame{2, largest}.bytes()), Message(2, largest));
    peer_.send(WsFrame{2, largest + 'm'}.head());
    expect_end_without_close_frame();
}

TEST_F(WsConnectionTest, AFrameOfTwoMebibytesEndsItWithoutACloseFrame) {
    peer_.send(WsFrame{2, std::string(2 * K_MEBIBYTE, 'm')}.head());
    expect_end_without_close_frame();
}

TEST_F(WsConnectionTest, AnUnbelievableLengthIsRefusedBeforeAnythingIsAllocated) {
    peer_.send(std::string("\x82\xff\xff\xff\xff\xff\xff\xff\xff\xff", 10));
    expect_end_without_close_frame();
}

TEST_F(WsConnectionTest, AMessageOfMoreThanOneMebibyteEndsIt) {
    std::string const half(K_MEBIBYTE / 2, 'h');
    std::string const halves = WsFrame{2, half, false}.bytes() + WsFrame{0, half, false}.bytes();
    EXPECT_EQ(answer_to(halves + WsFrame{0, ""}.bytes()), Message(2, half + half));
    EXPECT_EQ(answer_to(halves + WsFrame{0, "h"}.bytes()).first, -1);
    connection_.reset();
    EXPECT_EQ(peer_.read_frame(), std::nullopt);
}

TEST_F(WsConnectionTest, AnswersAPingWithItsPayload) {
    peer_.send(WsFrame{9, "x"}.bytes() + WsFrame{2, "after"}.bytes());
    EXPECT_EQ(read(), Message(2, "after"));
    EXPECT_EQ(peer_.read_frame(), (WsFrame{10, "x", true, false}));
}

TEST_F(WsConnectionTest, AnswersAPingInTheMiddleOfAFragmentedMessage) {
    peer_.send(WsFrame{1, "one ", false}.bytes() + WsFrame{9, "x"}.bytes() +
               WsFrame{0, "two ", false}.bytes() + WsFrame{10, "pong"}.bytes() +
               WsFrame{0, "three"}.bytes());
    EXPECT_EQ(read(), Message(1, "one two three"));
    EXPECT_EQ(peer_.read_frame(), (WsFrame{10, "x", true, false}));
}

TEST_F(WsConnectionTest, IgnoresPongs) {
    peer_.send(WsFrame{10, "unasked"}.bytes() + WsFrame{2, "after"}.bytes());
    EXPECT_EQ(read(), Message(2, "after"));
    connection_.reset();
    EXPECT_EQ(peer_.read_frame(), std::nullopt);
}

TEST_F(WsConnectionTest, AnswersACloseFrameWithAnEmptyOneAndEnds) {
    peer_.send(WsFrame{8, "\x03\xe8 bye"}.bytes() + WsFrame{2, "too late"}.bytes());
    EXPECT_EQ(read().first, -1);
    EXPECT_EQ(peer_.read_frame(), (WsFrame{8, "", true, false}));
}

TEST_F(WsConnectionTest, AContinuationWithoutABeginningComesWithOpcodeZero) {
    EXPECT_EQ(answer_to(WsFrame{0, "late"}.bytes()), Message(0, "late"));
}

TEST_F(WsConnectionTest, AnOpcodeAmongTheFragmentsBecomesThatOfTheMessage) {
    EXPECT_EQ(answer_to(WsFrame{2, "a", false}.bytes() + WsFrame{1, "b", false}.bytes() +
                        WsFrame{0, "c"}.bytes()),
              Message(1, "abc"));
    EXPECT_EQ(answer_to(WsFrame{7, "unknown"}.bytes()), Message(7, "unknown"));
}

TEST_F(WsConnectionTest, AShortFrameAtTheEndGivesNothing) {
    std::string const frame = WsFrame{2, std::string(200, 's')}.bytes();
    for (std::size_t size : {0U, 1U, 2U, 3U, 4U, 7U, 8U, 207U}) {
        test::SocketPair pair;
        test::WsPeer peer(pair.ends[1]);
        WsConnection connection(pair.ends[0]);
        peer.send(std::string_view(frame).substr(0, size));
        peer.end_of_input();
        EXPECT_EQ(connection.read_message(), std::nullopt) << size;
    }
}

TEST_F(WsConnectionTest, WritesEveryFormOfLengthAsOneFrame) {
    for (std::size_t size : {0U, 1U, 125U, 126U, 4096U, 65535U, 65536U, 3'000'000U}) {
        std::string const text(size, 'w');
        std::thread writer([&] { EXPECT_TRUE(write(2, text)); });
        EXPECT_EQ(peer_.read_frame(), (WsFrame{2, text, true, false})) << size;
        writer.join();
    }
}

TEST_F(WsConnectionTest, WritesSeveralMessagesAsAFrameEach) {
    std::vector<std::string> const texts{"one", "", std::string(300, '3'), std::string(70'000, '4'),
                                         "five"};
    std::vector<std::string_view> const messages(texts.begin(), texts.end());
    std::thread writer([&] { EXPECT_TRUE(connection_->write_messages(2, messages)); });
    for (std::string const& text : texts) {
        EXPECT_EQ(peer_.read_frame(), (WsFrame{2, text, true, false}));
    }
    writer.join();
    EXPECT_TRUE(connection_->write_messages(2, {}));
    connection_.reset();
    EXPECT_EQ(peer_.read_frame(), std::nullopt);
}

TEST_F(WsConnectionTest, WritesTheShortestHeader) {
    write(1, "ab");
    EXPECT_EQ(peer_.read(4), "\x81\x02"
                             "ab");
    write(2, std::string(126, 'c'));
    EXPECT_EQ(peer_.read(130), std::string("\x82\x7e\x00\x7e", 4) + std::string(126, 'c'));
    std::string const large(65536, 'd');
    std::thread writer([&] { write(2, large); });
    EXPECT_EQ(peer_.read(10), std::string("\x82\x7f\0\0\0\0\0\x01\0\0", 10));
    EXPECT_EQ(peer_.read(large.size()), large);
    writer.join();
}

TEST_F(WsConnectionTest, FramesOfSeveralThreadsNeverMix) {
    constexpr std::size_t K_FRAMES = 40;
    std::vector<std::thread> writers;
    for (char const letter : {'a', 'b', 'c'}) {
        writers.emplace_back([this, letter] {
            // Larger than what a socket takes at once.
            std::string const text(600'000, letter);
            for (std::size_t i = 0; i < K_FRAMES; ++i) {
                EXPECT_TRUE(write(2, text));
            }
        });
    }
    std::map<char, std::size_t> frames;
    for (std::size_t i = 0; i < 3 * K_FRAMES; ++i) {
        auto const frame = peer_.read_frame();
        ASSERT_TRUE(frame && frame->payload.size() == 600'000);
        char const letter = frame->payload.front();
        EXPECT_EQ(std::count(frame->payload.begin(), frame->payload.end(), letter), 600'000);
        ++frames[letter];
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(frames, (std::map<char, std::size_t>{{'a', 40}, {'b', 40}, {'c', 40}}));
}

TEST_F(WsConnectionTest, WritingToAPeerThatHasLeftFails) {
    peer_.close();
    EXPECT_FALSE(write(2, "x"));
    EXPECT_EQ(read().first, -1);
}

TEST_F(WsConnectionTest, APingThatCannotBeAnsweredEndsIt) {
    peer_.send(WsFrame{9, "x"}.bytes() + WsFrame{2, "after"}.bytes());
    ::shutdown(pair_.ends[0], SHUT_WR);
    EXPECT_EQ(read().first, -1);
}

TEST_F(WsConnectionTest, AShutdownEndsAReadAndAWriteThatAreUnderWay) {
    std::thread reader([this] { EXPECT_EQ(read().first, -1); });
    std::thread writer([this] { EXPECT_FALSE(write(2, std::string(10'000'000, 'w'))); });
    peer_.read(1000);
    ::shutdown(pair_.ends[0], SHUT_RDWR);
    reader.join();
    writer.join();
}

TEST_F(WsConnectionTest, AsksTheSystemWhetherASilentPeerIsThere) {
    int on = 0;
    socklen_t size = sizeof on;
    ASSERT_EQ(::getsockopt(pair_.ends[0], SOL_SOCKET, SO_KEEPALIVE, &on, &size), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(WsConnectionTest, ClosesItsSocket) {
    connection_.reset();
    EXPECT_EQ(peer_.read_frame(), std::nullopt);
    EXPECT_EQ(::send(pair_.ends[0], "x", 1, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
} // namespace mirelclient
