#include "MirelClientApp/web/SilentConnections.hpp"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace mirelclient {
namespace {

using tessaron::UniqueFd;

class SilentConnectionsTest : public testing::Test {
protected:
    struct Pair {
        UniqueFd client;
        int server; // owned by `silent_`
    };

    /// A connection that has been added.
    Pair connect() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        std::vector<UniqueFd> added;
        added.emplace_back(ends[1]);
        silent_->add(added);
        EXPECT_TRUE(added.empty());
        return {UniqueFd(ends[0]), ends[1]};
    }

    static void say_something(Pair const& pair) {
        ASSERT_EQ(::write(pair.client.get(), "x", 1), 1);
    }

    std::array<int, 2> listener_{make_pipe()};
    UniqueFd listener_read_{listener_[0]};
    UniqueFd listener_write_{listener_[1]};
    std::unique_ptr<SilentConnections> silent_ =
        std::make_unique<SilentConnections>(listener_read_.get());
    std::vector<UniqueFd> talking_;

private:
    static std::array<int, 2> make_pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        return ends;
    }
};

TEST_F(SilentConnectionsTest, OneThatSpeaksIsHandedOutAndTheOthersStay) {
    Pair const quiet = connect();
    Pair const loud = connect();
    say_something(loud);
    EXPECT_FALSE(silent_->wait(talking_));
    ASSERT_EQ(talking_.size(), 1U);
    EXPECT_EQ(talking_[0].get(), loud.server);
    EXPECT_GE(::fcntl(quiet.server, F_GETFD), 0);
}

TEST_F(SilentConnectionsTest, OneThatSpokeBeforeItWasAddedIsHandedOutToo) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    UniqueFd const client(ends[0]);
    ASSERT_EQ(::write(client.get(), "x", 1), 1);
    std::vector<UniqueFd> added;
    added.emplace_back(ends[1]);
    silent_->add(added);
    EXPECT_FALSE(silent_->wait(talking_));
    EXPECT_EQ(talking_.size(), 1U);
}

TEST_F(SilentConnectionsTest, OneThatEndsIsHandedOut) {
    Pair gone = connect();
    gone.client.reset();
    EXPECT_FALSE(silent_->wait(talking_));
    ASSERT_EQ(talking_.size(), 1U);
    EXPECT_EQ(talking_[0].get(), gone.server);
}

TEST_F(SilentConnectionsTest, OneIsHandedOutOnce) {
    Pair const loud = connect();
    say_something(loud);
    EXPECT_FALSE(silent_->wait(talking_));
    say_something(loud);
    ASSERT_EQ(::write(listener_write_.get(), "x", 1), 1);
    EXPECT_TRUE(silent_->wait(talking_));
    EXPECT_EQ(talking_.size(), 1U);
}

TEST_F(SilentConnectionsTest, TheListenerIsToldApart) {
    Pair const loud = connect();
    say_something(loud);
    ASSERT_EQ(::write(listener_write_.get(), "x", 1), 1);
    EXPECT_TRUE(silent_->wait(talking_));
    EXPECT_EQ(talking_.size(), 1U);
}

TEST_F(SilentConnectionsTest, OneThatCannotBeWatchedIsHandedOutAtOnce) {
    std::array<char, 32> path{"/tmp/silent-XXXXXX"};
    std::vector<UniqueFd> added;
    added.emplace_back(::mkstemp(path.data())); // plain files cannot be watched
    ::unlink(path.data());
    silent_->add(added);
    EXPECT_FALSE(silent_->wait(talking_));
    EXPECT_EQ(talking_.size(), 1U);
}

TEST_F(SilentConnectionsTest, ItsEndClosesThem) {
    Pair const quiet = connect();
    silent_.reset();
    char byte = 0;
    EXPECT_EQ(::read(quiet.client.get(), &byte, 1), 0);
}

} // namespace
} // namespace mirelclient
