#include "tests/support/artifact_builder.hpp"
#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

namespace {

using namespace proto::interface::test;
using proto::interface::MulticastUdpInterface;
using tessaron::test::must_run;
using Texts = std::vector<std::string>;

class MulticastBurst : public testing::Test {
protected:
    MulticastBurst() {
        EXPECT_TRUE(sender_.open_multicast(K_GROUP, K_PORT));
        EXPECT_TRUE(receiver_.open_multicast(K_GROUP, K_PORT));
    }

    void send_burst(Texts const& frames) {
        sender_.begin_burst();
        for (std::string const& frame : frames) {
            write_frame(sender_, {frame});
        }
        sender_.end_burst();
    }
    /// Sends them as a burst; they must come one by one and in this order.
    void expect_arrival(Texts const& frames) {
        Recorder const recorder(receiver_);
        send_burst(frames);
        recorder.wait_for_count(frames.size());
        EXPECT_EQ(recorder.all(), frames);
    }

    MulticastUdpInterface sender_;
    MulticastUdpInterface receiver_;
};

TEST_F(MulticastBurst, ArrivesAsTheDatagramsThatWereWritten) {
    expect_arrival({"aaaa", "bbbb", "cccc"});
}

TEST_F(MulticastBurst, TellsItsReceiversOfMoreToComeUntilTheLast) {
    std::mutex mutex;
    std::vector<bool> more;
    auto const callback =
        receiver_.add_receive_callback([&](Bytes /*bytes*/, unsigned long& /*used*/) {
            std::lock_guard const lock(mutex);
            more.push_back(receiver_.has_more_for_receivers());
        });
    Recorder const recorder(receiver_);
    send_burst({"aaaa", "bbbb", "cccc"});
    recorder.wait_for("cccc");
    receiver_.wait_for_callbacks();
    std::lock_guard const lock(mutex);
    EXPECT_EQ(more, (std::vector<bool>{true, true, false}));
}

TEST_F(MulticastBurst, MayHoldFramesOfAnySizesInAnyOrder) {
    expect_arrival({"aaaa", "bbbb", "cc", "dddd", "e", "f", "gg", "hhhhhhhh", "iiii", "jjjj"});
}

TEST_F(MulticastBurst, MayHoldMoreThanLeavesAtOnce) {
    Texts frames;
    for (int i = 0; i < 200; ++i) {
        frames.push_back("frame " + std::to_string(1000 + i));
    }
    expect_arrival(frames);
}

TEST_F(MulticastBurst, MayHoldMoreBytesThanADatagram) {
    Texts frames;
    for (int i = 0; i < 50; ++i) {
        frames.push_back(std::string(4096, static_cast<char>('a' + i % 26)));
    }
    frames.push_back("the rest");
    expect_arrival(frames);
}

TEST_F(MulticastBurst, MayHoldTheLargestDatagrams) {
    expect_arrival({std::string(65507, 'a'), "small", std::string(65507, 'b')});
}

TEST_F(MulticastBurst, LosesAFrameTooLargeForADatagramAndNoOther) {
    Recorder const recorder(receiver_);
    send_burst({"before", std::string(65508, 'x'), "after", "after"});
    recorder.wait_for_count(3);
    EXPECT_EQ(recorder.all(), (Texts{"before", "after", "after"}));
}

TEST_F(MulticastBurst, ArrivesWhereTheNetworksPacketsAreSmallerThanItsFrames) {
    must_run("ip link set lo mtu 1500");
    Texts frames(20, std::string(4096, 'a'));
    frames.insert(frames.end(), 20, std::string(1000, 'b'));
    expect_arrival(frames);
    must_run("ip link set lo mtu 65536");
}

TEST_F(MulticastBurst, OfNothingSendsNothing) {
    Recorder const recorder(receiver_);
    sender_.begin_burst();
    write_frame(sender_, {});
    sender_.end_burst();
    write(sender_, "marker");
    recorder.wait_for("marker");
    EXPECT_EQ(recorder.all(), Texts{"marker"});
}

TEST_F(MulticastBurst, LeavesAtTheEndOfTheOutermostAndHoldsNoOtherThreadUp) {
    Recorder const recorder(receiver_);
    sender_.begin_burst();
    sender_.begin_burst();
    write_frame(sender_, {"held"});
    sender_.end_burst();
    write(sender_, "held too");
    std::thread([this] { write_frame(sender_, {"of another thread"}); }).join();
    recorder.wait_for_count(1);
    EXPECT_EQ(recorder.all(), Texts{"of another thread"});
    sender_.end_burst();
    recorder.wait_for_count(3);
    EXPECT_EQ(recorder.all(), (Texts{"of another thread", "held", "held too"}));
}

TEST_F(MulticastBurst, AnEndWithoutABeginIsNothing) {
    sender_.end_burst();
    expect_arrival({"a", "b"});
}

TEST_F(MulticastBurst, OfSeveralThreadsNeverMix) {
    Recorder const recorder(receiver_);
    constexpr int K_WRITERS = 4;
    constexpr int K_FRAMES = 80;
    std::vector<std::thread> writers;
    for (int w = 0; w < K_WRITERS; ++w) {
        writers.emplace_back([this, letter = static_cast<char>('a' + w)] {
            sender_.begin_burst();
            for (int i = 0; i < K_FRAMES; ++i) {
                write_frame(sender_, Texts(5, std::string(20, letter)));
            }
            sender_.end_burst();
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    recorder.wait_for_count(K_WRITERS * K_FRAMES);
    for (std::string const& frame : recorder.all()) {
        ASSERT_EQ(frame, std::string(100, frame[0]));
    }
}

TEST_F(MulticastBurst, IsLostWhenTheTransportIsClosedMeanwhile) {
    sender_.begin_burst();
    write_frame(sender_, {"too late"});
    sender_.close();
    sender_.end_burst();
    ASSERT_TRUE(sender_.open());
    expect_arrival({"again", "there"});
}

TEST_F(MulticastBurst, IsEncryptedFrameByFrame) {
    proto::crypto::ChaCha20::Key key{};
    key[0] = 7;
    sender_.set_encryption_key(key);
    receiver_.set_encryption_key(key);
    expect_arrival({"aaaa", "bbbb", "cc", "dddddd"});
}

} // namespace
