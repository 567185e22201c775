#include "tests/unit/libraries/interfaces/ThreadState.hpp"
#include "tests/unit/libraries/interfaces/multicast/MulticastTest.hpp"

#include <algorithm>
#include <sys/syscall.h>

namespace {

using namespace proto::interface::test;
using proto::interface::MulticastUdpInterface;
using tessaron::test::must_run;
using tessaron::test::wait_until;
using testing::UnitTest;
using Texts = std::vector<std::string>;

TEST(MulticastUdpInterface, HasItsName) {
    EXPECT_STREQ(MulticastUdpInterface().name(), "Multicast UDP interface");
}

TEST(MulticastUdpInterface, OpensNeitherWithoutGroupOrPortNorAtWhatIsNoGroup) {
    auto const threads = thread_ids();
    MulticastUdpInterface transport;
    EXPECT_FALSE(transport.open());
    EXPECT_FALSE(transport.open_multicast("", K_PORT));
    EXPECT_FALSE(transport.open_multicast(K_GROUP, 0));
    EXPECT_FALSE(transport.open_multicast("no address", K_PORT));
    EXPECT_FALSE(transport.open_multicast("127.0.0.1", K_PORT));
    EXPECT_FALSE(transport.open_multicast(K_GROUP, K_PORT, "10.99.99.99"));
    EXPECT_FALSE(transport.is_open());
    EXPECT_EQ(thread_ids(), threads);
    EXPECT_EQ(transport.receive_buffer_size(), 0);
    EXPECT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
}

TEST(MulticastUdpInterface, TakesWhatIsNoInterfaceAddressForAnyInterface) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT, "eth0"));
    Recorder const recorder(transport);
    write(transport, "here");
    recorder.wait_for("here");
}

TEST(MulticastUdpInterface, AWriteOutsideOfAFrameIsADatagramOfItsOwn) {
    MulticastUdpInterface a;
    MulticastUdpInterface b;
    ASSERT_TRUE(a.open_multicast(K_GROUP, K_PORT));
    ASSERT_TRUE(b.open_multicast(K_GROUP, K_PORT, "127.0.0.1"));
    Recorder const at_a(a);
    Recorder const at_b(b);
    EXPECT_TRUE(write(a, "one"));
    EXPECT_TRUE(write(a, "two"));
    at_b.wait_for_count(2);
    EXPECT_EQ(at_b.all(), (Texts{"one", "two"}));
    at_a.wait_for_count(2);
    EXPECT_EQ(at_a.all(), at_b.all()) << "what a node sends comes back to it";
}

TEST(MulticastUdpInterface, TheWritesOfAFrameAreOneDatagram) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    for (int i = 0; i < 3; ++i) {
        write_frame(transport, {"head ", "body ", std::to_string(i)});
    }
    write(transport, "alone");
    recorder.wait_for("alone");
    EXPECT_EQ(recorder.all(), (Texts{"head body 0", "head body 1", "head body 2", "alone"}));
}

TEST(MulticastUdpInterface, AFrameWithoutBytesSendsNothing) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    write_frame(transport, {});
    write_frame(transport, {"", ""});
    write(transport, "marker");
    recorder.wait_for("marker");
    EXPECT_EQ(recorder.all(), Texts{"marker"});
}

TEST(MulticastUdpInterface, AFrameTooLargeForADatagramIsLostAndTheNextIsNot) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    EXPECT_FALSE(write(transport, std::string(65508, 'x')));
    write_frame(transport, {std::string(65508, 'x')});
    EXPECT_TRUE(write(transport, std::string(65507, 'y')));
    recorder.wait_for_count(1);
    EXPECT_EQ(recorder.all(), Texts{std::string(65507, 'y')});
}

TEST(MulticastUdpInterface, WritesNothingWhileItIsClosed) {
    MulticastUdpInterface transport;
    EXPECT_FALSE(write(transport, "early"));
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    EXPECT_TRUE(transport.close());
    EXPECT_FALSE(write(transport, "late"));
    write_frame(transport, {"late"});
    unsigned char buffer[16];
    EXPECT_EQ(transport.read(buffer, sizeof buffer), -1);
    EXPECT_TRUE(transport.close());
}

TEST(MulticastUdpInterface, OpensTwiceAndAgainAfterItWasClosed) {
    auto const threads = thread_ids().size();
    MulticastUdpInterface transport;
    Recorder const recorder(transport);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
        EXPECT_TRUE(transport.open());
        EXPECT_TRUE(transport.is_open());
        wait_until([&] { return thread_ids().size() == threads + 2; }, "there are two readers");
        write(transport, "round " + std::to_string(i));
        recorder.wait_for("round " + std::to_string(i));
        EXPECT_TRUE(transport.close());
        EXPECT_FALSE(transport.is_open());
        wait_until([&] { return thread_ids().size() == threads; }, "the readers are gone");
    }
}

TEST(MulticastUdpInterface, GroupsOnOnePortStayApart) {
    MulticastUdpInterface a;
    MulticastUdpInterface b;
    ASSERT_TRUE(a.open_multicast(K_GROUP, K_PORT));
    ASSERT_TRUE(b.open_multicast("239.255.77.2", K_PORT));
    Recorder const at_b(b);
    write(a, "for the first group");
    write(b, "marker");
    at_b.wait_for("marker");
    EXPECT_EQ(at_b.all(), Texts{"marker"});
}

TEST(MulticastUdpInterface, NothingOfItIsInherited) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    EXPECT_EQ(inheritable_sockets(), std::set<std::string>());
    transport.rejoin();
    EXPECT_EQ(inheritable_sockets(), std::set<std::string>());
}

TEST(MulticastUdpInterface, TellsHowMuchItsReceiveBufferHolds) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    std::string const limit = tessaron::test::read_text("/proc/sys/net/core/rmem_max");
    int const granted_to_all = std::min(1048576, limit.empty() ? 1048576 : std::stoi(limit));
    int const size = transport.receive_buffer_size();
    EXPECT_TRUE(size == 1048576 || size == granted_to_all) << size;
}

TEST(MulticastUdpInterface, CloseWakesTheReaders) {
    MulticastUdpInterface transport(never_timing_out());
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    wait_until([] { return thread_ids().size() == 2; }, "there are two readers");
    for (auto const& id : thread_ids()) {
        wait_until_blocked_in(std::stoi(id), SYS_recvfrom);
    }
    EXPECT_TRUE(transport.close()); // joins the readers, which wait for an hour
}

TEST(MulticastUdpInterface, CloseWakesASenderThatWaitsForRoom) {
    MulticastUdpInterface transport(never_timing_out());
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    // A network that takes next to nothing, and queues what a socket's buffer holds.
    must_run("tc qdisc add dev lo root tbf rate 8bit burst 70000 limit 100000000");
    std::atomic<pid_t> sender_id{0};
    std::thread sender([&] {
        sender_id = ::gettid();
        while (write(transport, std::string(60000, 'x'))) {
        }
    });
    wait_until([&] { return sender_id != 0; }, "the sender runs");
    wait_until_blocked_in(sender_id, SYS_sendto);
    EXPECT_TRUE(transport.close());
    sender.join();
    must_run("tc qdisc del dev lo root");
}

TEST(MulticastUdpInterface, ASendThatFindsNoRoomForItsTimeLosesTheDatagramAndSaysSo) {
    proto::interface::MulticastTiming timing;
    timing.send_timeout = std::chrono::milliseconds(20);
    MulticastUdpInterface transport(timing);
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    must_run("tc qdisc add dev lo root tbf rate 8bit burst 70000 limit 100000000");
    int sent = 0;
    while (write(transport, std::string(60000, 'x'))) {
        ++sent;
    }
    EXPECT_GT(sent, 5) << "the socket's buffer holds more";
    must_run("tc qdisc del dev lo root");
    EXPECT_TRUE(write(transport, "and on"));
}

TEST(MulticastUdpInterface, ManyWritersAndReadersSurviveItsClosing) {
    for (int round = 0; round < 20; ++round) {
        MulticastUdpInterface transport;
        ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                while (transport.is_open()) {
                    write_frame(transport, {"some", " bytes"});
                }
            });
        }
        threads.emplace_back([&] {
            unsigned char buffer[100];
            while (transport.is_open()) {
                transport.read(buffer, sizeof buffer);
            }
        });
        transport.close();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(MulticastUdpInterface, FramesOfSeveralWritersNeverMix) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    constexpr int K_WRITERS = 4;
    constexpr int K_FRAMES = 100;
    std::vector<std::thread> writers;
    for (int w = 0; w < K_WRITERS; ++w) {
        writers.emplace_back([&transport, letter = static_cast<char>('a' + w)] {
            for (int i = 0; i < K_FRAMES; ++i) {
                write_frame(transport, Texts(5, std::string(20, letter)));
            }
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

TEST(MulticastUdpInterface, AReceiverThatLetsGoDuringACallMayGoWhenTheCallIsOver) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    HeldReceiver receiver(transport);
    write(transport, "first");
    EXPECT_TRUE(receiver.may_go_no_earlier_than_its_call_ends(transport));
    Recorder const recorder(transport);
    write(transport, "second");
    recorder.wait_for("second");
}

TEST(MulticastUdpInterface, ReceiversAreCalledFromTheLastAddedToTheFirst) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    std::mutex mutex;
    std::string order;
    std::vector<std::shared_ptr<MulticastUdpInterface::ReceiveCallback>> callbacks;
    for (char const name : {'a', 'b', 'c'}) {
        callbacks.push_back(transport.add_receive_callback([&, name](Bytes, unsigned long&) {
            std::lock_guard const lock(mutex);
            order += name;
        }));
    }
    callbacks[1].reset();
    write(transport, "x");
    wait_until(
        [&] {
            std::lock_guard const lock(mutex);
            return order.size() >= 2;
        },
        "both have been called");
    transport.close();
    EXPECT_EQ(order, "ca");
}

TEST(MulticastUdpInterface, AReceiverMayWrite) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    auto const answering = transport.add_receive_callback([&](Bytes bytes, unsigned long&) {
        if (std::string(bytes.begin(), bytes.end()) == "question") {
            write_frame(transport, {"ans", "wer"});
        }
    });
    write(transport, "question");
    recorder.wait_for("answer");
    transport.close();
}

TEST(MulticastUdpInterface, WhatIsReadDirectlyAndWhatReceiversGetIsEachDatagramOnce) {
    MulticastUdpInterface transport;
    ASSERT_TRUE(transport.open_multicast(K_GROUP, K_PORT));
    Recorder const recorder(transport);
    Texts read;
    std::atomic<std::size_t> read_count{0};
    std::thread reader([&] {
        unsigned char buffer[100];
        while (transport.is_open()) {
            long const size = transport.read(buffer, sizeof buffer);
            if (size > 0) {
                read.emplace_back(buffer, buffer + size);
                ++read_count;
            }
        }
    });
    Texts sent;
    for (int i = 0; i < 200; ++i) {
        sent.push_back("datagram " + std::to_string(1000 + i));
        write(transport, sent.back());
    }
    transport.begin_burst();
    for (int i = 200; i < 300; ++i) {
        sent.push_back("datagram " + std::to_string(1000 + i));
        write(transport, sent.back());
    }
    transport.end_burst();
    wait_until([&] { return read_count + recorder.all().size() >= sent.size(); }, "all are there");
    transport.close();
    reader.join();
    Texts received = recorder.all();
    received.insert(received.end(), read.begin(), read.end());
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received, sent);
}

} // namespace
