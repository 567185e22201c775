#include "tests/support/artifact_builder.hpp"
#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

namespace {

using namespace proto::interface::test;
using namespace std::chrono_literals;
using proto::interface::MulticastUdpInterface;
using tessaron::test::must_run;
using tessaron::test::wait_until;

class MulticastRejoin : public testing::Test {
protected:
    WatchdogClock clock_;
    MulticastUdpInterface transport_{clock_.timing()};
};

TEST_F(MulticastRejoin, ComesAfterThreeFailedRequestsInARow) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    transport_.notify_request_outcome(false);
    transport_.notify_request_outcome(false);
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 0U);
    transport_.notify_request_outcome(false);
    wait_for_rejoins(transport_, 1);
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 1U) << "once is enough";
}

TEST_F(MulticastRejoin, ASuccessInBetweenStartsTheCountOfFailuresAnew) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    for (bool const ok : {false, false, true, false, false}) {
        transport_.notify_request_outcome(ok);
    }
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 0U);
    transport_.notify_request_outcome(false);
    wait_for_rejoins(transport_, 1);
}

TEST_F(MulticastRejoin, StartsTheCountOfFailuresAnew) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    transport_.notify_request_outcome(false);
    transport_.notify_request_outcome(false);
    transport_.rejoin();
    transport_.notify_request_outcome(false);
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 1U);
}

TEST_F(MulticastRejoin, ComesAfterFifteenSecondsOfSilenceAndFifteenAfterThat) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    for (std::uint32_t round = 1; round <= 3; ++round) {
        clock_.advance(14'999ms);
        clock_.wait_for_looks();
        EXPECT_EQ(transport_.rejoin_count(), round - 1);
        clock_.advance(1ms);
        wait_for_rejoins(transport_, round);
        clock_.wait_for_looks();
        EXPECT_EQ(transport_.rejoin_count(), round);
    }
}

TEST_F(MulticastRejoin, IsPutOffByADatagram) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport_);
    clock_.advance(14'999ms);
    write(transport_, "not silent");
    recorder.wait_for("not silent");
    clock_.advance(14'999ms);
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 0U);
    clock_.advance(1ms);
    wait_for_rejoins(transport_, 1);
}

TEST_F(MulticastRejoin, CanBeAskedForBySilenceAlone) {
    auto timing = clock_.timing();
    timing.receive_timeout = 1h; // the reader does not look
    MulticastUdpInterface transport(timing);
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    clock_.advance(14'999ms);
    transport.rejoin_if_silent();
    EXPECT_EQ(transport.rejoin_count(), 0U);
    clock_.advance(1ms);
    transport.rejoin_if_silent();
    EXPECT_EQ(transport.rejoin_count(), 1U);
    transport.rejoin_if_silent();
    EXPECT_EQ(transport.rejoin_count(), 1U);
}

TEST_F(MulticastRejoin, WakesAReaderThatWaitsOnTheOldSocket) {
    MulticastUdpInterface transport(never_timing_out());
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    transport.rejoin();
    write(transport, "by the new socket");
    recorder.wait_for("by the new socket");
}

TEST_F(MulticastRejoin, IsNothingWhileClosed) {
    transport_.rejoin();
    EXPECT_EQ(transport_.rejoin_count(), 0U);
    EXPECT_FALSE(transport_.is_open());
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    transport_.close();
    transport_.rejoin();
    EXPECT_EQ(transport_.rejoin_count(), 0U);
    EXPECT_EQ(transport_.receive_buffer_size(), 0);
}

TEST_F(MulticastRejoin, LosesNothingThatIsSentMeanwhile) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    MulticastUdpInterface other;
    ASSERT_TRUE(other.open_multicast(K_GROUP, K_PORT));
    Recorder const at_other(other);
    constexpr std::size_t K_WRITERS = 3;
    constexpr std::size_t K_FRAMES = 200;
    std::atomic<int> failed{0};
    std::vector<std::thread> writers;
    for (std::size_t w = 0; w < K_WRITERS; ++w) {
        writers.emplace_back([&] {
            for (std::size_t i = 0; i < K_FRAMES; ++i) {
                failed += write(transport_, "a datagram") ? 0 : 1;
                if (i % 20 == 0) {
                    transport_.rejoin();
                }
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    at_other.wait_for_count(K_WRITERS * K_FRAMES);
    EXPECT_EQ(failed, 0);
    Recorder const recorder(transport_);
    write(transport_, "and it still hears");
    recorder.wait_for("and it still hears");
}

TEST_F(MulticastRejoin, SurvivesItsTransportsClosing) {
    for (int round = 0; round < 30; ++round) {
        ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
        std::thread rejoining([&] {
            while (transport_.is_open()) {
                transport_.rejoin();
            }
        });
        wait_until([&] { return transport_.rejoin_count() > 0; }, "a rejoin");
        transport_.close();
        rejoining.join();
        EXPECT_EQ(transport_.receive_buffer_size(), 0) << "no socket is left behind";
    }
}

/// A pair of interfaces whose first has the address 10.77.0.1.
void add_interface() {
    must_run("ip link add bus0 type veth peer name bus1 && ip addr add 10.77.0.1/24 dev bus0 && "
             "ip link set bus0 up && ip link set bus1 up");
}

TEST_F(MulticastRejoin, RegainsAMembershipThatDiedWithItsInterface) {
    add_interface();
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT, "10.77.0.1"));
    Recorder const recorder(transport_);
    write(transport_, "while all is well");
    recorder.wait_for("while all is well");

    must_run("ip link del bus0");
    add_interface();
    MulticastUdpInterface other;
    ASSERT_TRUE(other.open_multicast(K_GROUP, K_PORT, "10.77.0.1"));
    Recorder const at_other(other);
    write(other, "unheard");
    at_other.wait_for("unheard");
    clock_.wait_for_looks();
    EXPECT_FALSE(recorder.has("unheard")) << "the old membership still holds: no test of anything";

    clock_.advance(15s);
    wait_for_rejoins(transport_, 1);
    write(other, "heard again");
    recorder.wait_for("heard again");
    write(transport_, "and spoken");
    at_other.wait_for("and spoken");
    transport_.close();
    must_run("ip link del bus0");
}

TEST_F(MulticastRejoin, IsTriedAgainWhileTheInterfaceIsDown) {
    ASSERT_TRUE(transport_.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport_);
    must_run("ip link set lo down");
    clock_.advance(15s);
    wait_for_rejoins(transport_, 1);
    EXPECT_TRUE(transport_.is_open());
    EXPECT_EQ(transport_.receive_buffer_size(), 0) << "there was a way to the group after all";
    EXPECT_FALSE(write(transport_, "to nobody"));

    must_run("ip link set lo up && ip route add 224.0.0.0/4 dev lo");
    clock_.wait_for_looks();
    EXPECT_EQ(transport_.rejoin_count(), 1U) << "not before the next silence";
    clock_.advance(15s);
    wait_for_rejoins(transport_, 2);
    write(transport_, "back");
    recorder.wait_for("back");
}

} // namespace
