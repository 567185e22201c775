#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace proto::interface::test;
using proto::interface::MulticastUdpInterface;
using tessaron::test::wait_until;
using FollowUp = MulticastUdpInterface::FollowUp;

/// A receiver that leaves its work to the transport, each time the same.
class Worker {
public:
    Worker(MulticastUdpInterface& transport, FollowUp work)
        : transport_(transport), work_(std::make_shared<FollowUp const>(std::move(work))),
          callback_(transport.add_receive_callback([this](Bytes, unsigned long&) {
              ++(transport_.follow_up(work_) ? accepted_ : refused_);
          })) {}
    ~Worker() {
        callback_.reset();
        transport_.wait_for_callbacks();
    }
    Worker(Worker const&) = delete;
    Worker& operator=(Worker const&) = delete;

    int accepted() const { return accepted_; }
    int refused() const { return refused_; }

private:
    MulticastUdpInterface& transport_;
    std::shared_ptr<FollowUp const> const work_;
    std::atomic<int> accepted_{0};
    std::atomic<int> refused_{0};
    std::shared_ptr<MulticastUdpInterface::ReceiveCallback> callback_;
};

class MulticastTurns : public testing::Test {
protected:
    MulticastTurns() { EXPECT_TRUE(transport_.open_multicast(K_GROUP, K_PORT)); }

    void send(int count) {
        for (int i = 0; i < count; ++i) {
            write(transport_, "datagram");
        }
    }

    std::atomic<bool> is_released_{false}; // Outlives the transport, whose threads wait for it.
    MulticastUdpInterface transport_{never_timing_out()};
};

TEST_F(MulticastTurns, WhatIsLeftToDoIsDoneWithoutALock) {
    std::atomic<int> done{0};
    Worker const worker(transport_, [&] {
        transport_.wait_for_callbacks(); // This would wait for ever for a call that it is part of.
        ++done;
    });
    send(1);
    EXPECT_TRUE(wait_until([&] { return done == 1; }, "the work is done"));
}

TEST_F(MulticastTurns, WhileItIsBeingDoneTheOtherThreadReads) {
    std::atomic<bool> is_begun{false};
    Worker const worker(transport_, [&] {
        is_begun = true;
        is_released_.wait(false);
    });
    Recorder const recorder(transport_);
    send(1);
    EXPECT_TRUE(wait_until([&] { return is_begun.load(); }, "the work has begun"));
    send(100);
    EXPECT_TRUE(recorder.wait_for_count(101));
    EXPECT_TRUE(wait_until([&] { return worker.refused() == 100; }, "one thread goes on reading"));
    EXPECT_EQ(worker.accepted(), 1);
    is_released_ = true;
    is_released_.notify_all();
}

TEST_F(MulticastTurns, WorkOfSeveralReceiversIsDoneOnOneThread) {
    std::atomic<int> done{0};
    std::mutex mutex;
    std::set<std::thread::id> threads;
    auto const work = [&] {
        std::lock_guard const lock(mutex);
        threads.insert(std::this_thread::get_id());
        ++done;
    };
    Worker const one(transport_, work);
    Worker const another(transport_, work);
    send(1);
    EXPECT_TRUE(wait_until([&] { return done == 2; }, "both are done"));
    transport_.close();
    EXPECT_EQ(threads.size(), 1U);
}

TEST_F(MulticastTurns, AllDatagramsComeInTheirOrder) {
    constexpr int K_COUNT = 5000;
    std::vector<std::string> sent;
    Worker const worker(transport_, [] {});
    Recorder const recorder(transport_);
    for (int i = 0; i < K_COUNT; ++i) {
        sent.push_back(std::to_string(i));
        write(transport_, sent.back());
        if (i % 100 == 99) {
            ASSERT_TRUE(
                recorder.wait_for(sent.back())); // More might be more than the socket holds.
        }
    }
    EXPECT_EQ(recorder.all(), sent);
}

TEST_F(MulticastTurns, ACloseWaitsForWhatIsBeingDone) {
    std::atomic<bool> is_begun{false};
    std::atomic<bool> is_done{false};
    Worker const worker(transport_, [&] {
        is_begun = true;
        is_released_.wait(false);
        is_done = true;
    });
    send(1);
    EXPECT_TRUE(wait_until([&] { return is_begun.load(); }, "the work has begun"));
    std::thread releaser([this] {
        wait_until([this] { return !transport_.is_open(); }, "the close has begun");
        is_released_ = true;
        is_released_.notify_all();
    });
    transport_.close();
    EXPECT_TRUE(is_done);
    releaser.join();
}

} // namespace
