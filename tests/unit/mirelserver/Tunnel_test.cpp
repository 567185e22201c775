#include "mirelserver/Tunnel.hpp"

#include "tests/unit/mirelserver/TunnelTest.hpp"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <string>

namespace mirelserver::test {
namespace {

using namespace tessaron::tunnel;
using std::chrono::milliseconds;

TEST_F(TunnelTest, AConnectionThatStaysSilentIsClosed) {
    TunnelLimits limits = patient();
    limits.register_limit = milliseconds{20};
    connect(limits);
    EXPECT_TRUE(is_hung_up(machine_));
}

TEST_F(TunnelTest, AConnectionThatFallsSilentWithinItsRegistrationIsClosed) {
    TunnelLimits limits = patient();
    limits.register_limit = milliseconds{20};
    connect(limits);
    send_bytes(encode_frame(FRAME_REGISTER, 0, "name").substr(0, K_FRAME_HEADER_SIZE + 1));
    EXPECT_TRUE(is_hung_up(machine_));
    EXPECT_TRUE(clients_->list(ClientTable::Clock::now()).empty());
}

TEST_F(TunnelTest, AnIdleTunnelIsProbed) {
    TunnelLimits limits = patient();
    limits.probe_interval = milliseconds{10};
    registered(limits);
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_PROBE, 0, 0}));
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_PROBE, 0, 0}));
}

TEST_F(TunnelTest, ANameOfTheLargestSizeIsTaken) {
    connect();
    std::string const name(ClientTable::K_MAX_NAME_SIZE, 'n');
    send(FRAME_REGISTER, 0, name);
    EXPECT_TRUE(run_until([&] { return has_tunnel(name); }));
}

TEST_F(TunnelTest, ANameThatCannotBeEndsTheConnection) {
    for (std::string const& name :
         {std::string(), std::string(ClientTable::K_MAX_NAME_SIZE + 1, 'n'), std::string("a/b"),
          std::string(".."), std::string("a\0b", 3), std::string("\xff")}) {
        tcp::socket machine(context_);
        connect(machine, patient());
        boost::asio::write(machine, boost::asio::buffer(encode_frame(FRAME_REGISTER, 0, name)));
        EXPECT_TRUE(is_hung_up(machine)) << name;
    }
    EXPECT_TRUE(clients_->list(ClientTable::Clock::now()).empty());
}

TEST_F(TunnelTest, AFurtherRegistrationOnTheSameTunnelChangesNothing) {
    auto const tunnel = registered();
    send(FRAME_REGISTER, 0, "another");
    StreamReader stream(tunnel->open("http"));
    send(FRAME_DATA, 1, "answer");
    EXPECT_TRUE(run_until([&] { return stream.bytes() == "answer"; }));
    EXPECT_FALSE(has_tunnel("another"));
    EXPECT_TRUE(has_tunnel("m"));
}

TEST_F(TunnelTest, ASecondTunnelOfANameReplacesTheFirstWhoseStreamsEnd) {
    auto const first = registered();
    StreamReader stream(first->open("http"));
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_OPEN, 1, 4}));
    tcp::socket second(context_);
    auto const newer = connect(second, patient());
    boost::asio::write(second, boost::asio::buffer(encode_frame(FRAME_REGISTER, 0, "m")));
    EXPECT_TRUE(run_until([&] { return stream.ended(); }));
    EXPECT_TRUE(is_hung_up(machine_));
    EXPECT_EQ(clients_->find("m", ClientTable::Clock::now())->tunnel, newer);
    StreamReader late(first->open("http"));
    EXPECT_TRUE(run_until([&] { return late.ended(); }));
}

TEST_F(TunnelTest, DataOfStreamsThatAreClosedOrNeverWereIsIgnored) {
    auto const tunnel = registered();
    StreamReader left(tunnel->open("http"));
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_OPEN, 1, 4}));
    left.channel->close();
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_CLOSE, 1, 0}));
    send(FRAME_DATA, 1, "too late");
    send(FRAME_DATA, 77, "nobody's");
    send(FRAME_DATA, 0, "nobody's");
    send(FRAME_CLOSE, 1);
    send(FRAME_CLOSE, 77);
    StreamReader open(tunnel->open("http"));
    send(FRAME_DATA, 2, "heard");
    EXPECT_TRUE(run_until([&] { return open.bytes() == "heard"; }));
    EXPECT_EQ(left.bytes(), "");
    EXPECT_EQ(read_frame().first, (FrameHeader{FRAME_OPEN, 2, 4})); // and nothing before it
}

TEST_F(TunnelTest, TheLargestFrameReachesItsStreamAndALargerOneEndsTheTunnel) {
    auto const tunnel = registered();
    StreamReader stream(tunnel->open("http"));
    std::string const largest(K_MAX_FRAME_PAYLOAD, 'x');
    send(FRAME_DATA, 1, largest);
    EXPECT_TRUE(run_until([&] { return stream.bytes().size() == largest.size(); }));
    EXPECT_TRUE(has_tunnel("m"));
    auto const header = encode_header({FRAME_DATA, 1, K_MAX_FRAME_PAYLOAD + 1});
    send_bytes({header.data(), header.size()});
    EXPECT_TRUE(run_until([&] { return stream.ended(); }));
    EXPECT_FALSE(has_tunnel("m"));
}

TEST_F(TunnelTest, AStreamTooManyEndsAtOnceAndTheOthersWithTheTunnel) {
    auto const tunnel = registered();
    std::deque<StreamReader> streams;
    auto const ended = [&streams] {
        return static_cast<std::size_t>(std::count_if(streams.begin(), streams.end(),
                                                      [](auto const& one) { return one.ended(); }));
    };
    for (std::size_t i = 0; i < Tunnel::K_MAX_STREAMS + 1; ++i) {
        streams.emplace_back(tunnel->open("http"));
    }
    ASSERT_TRUE(run_until([&] { return streams.back().ended(); }));
    EXPECT_EQ(ended(), 1U);
    machine_.close();
    EXPECT_TRUE(run_until([&] { return ended() == Tunnel::K_MAX_STREAMS + 1; }));
    EXPECT_FALSE(has_tunnel("m"));
}

TEST_F(TunnelTest, AMachineThatTakesNothingLosesItsTunnelOnceTooMuchWaitsForIt) {
    constexpr std::size_t writes = 128;
    TunnelLimits limits = patient();
    limits.queue_size = 1'000'000;
    auto const tunnel = registered(limits);
    std::deque<StreamReader> streams;
    std::size_t sent = 0;
    std::size_t failed = 0;
    for (std::size_t i = 0; i < writes; ++i) { // more than the system's buffers hold
        streams.emplace_back(tunnel->open("http"));
        streams.back().channel->async_write(std::string(250'000, 'x'),
                                            [&](bool good) { ++(good ? sent : failed); });
    }
    EXPECT_TRUE(run_until([&] { return sent + failed == writes; }));
    EXPECT_GT(failed, 0U);
    EXPECT_FALSE(has_tunnel("m"));
    for (StreamReader const& stream : streams) {
        EXPECT_TRUE(run_until([&stream] { return stream.ended(); }));
    }
}

TEST_F(TunnelTest, AMachineThatAcknowledgesNothingForTooLongLosesItsTunnel) {
    TunnelLimits limits = patient();
    limits.dead_limit = milliseconds{500};
    auto const tunnel = registered(limits);
    StreamReader stream(tunnel->open("http"));
    bool sent = true;
    stream.channel->async_write(std::string(16'000'000, 'x'), [&sent](bool good) { sent = good; });
    EXPECT_TRUE(run_until([&stream] { return stream.ended(); }));
    EXPECT_TRUE(run_until([&sent] { return !sent; }));
    EXPECT_FALSE(has_tunnel("m"));
}

} // namespace
} // namespace mirelserver::test
