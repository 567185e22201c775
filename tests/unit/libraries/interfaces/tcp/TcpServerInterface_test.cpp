#include "tests/unit/libraries/interfaces/ThreadState.hpp"
#include "tests/unit/libraries/interfaces/tcp/TcpTest.hpp"

#include <array>
#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

using namespace proto::interface::test;
using namespace std::chrono_literals;
using proto::interface::K_MAX_TCP_CLIENTS;
using proto::interface::TcpServerInterface;
using tessaron::test::wait_until;

std::size_t open_descriptors() {
    auto const files = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

TEST(TcpServerInterface, HasItsName) {
    EXPECT_STREQ(TcpServerInterface().name(), "Tcp server interface");
}

TEST(TcpServerInterface, HasTheProcessIgnoreBrokenPipes) {
    std::signal(SIGPIPE, SIG_DFL);
    TcpServerInterface const server;
    EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST(TcpServerInterface, TellsThePortThatTheSystemChose) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    EXPECT_TRUE(server.is_open());
    EXPECT_NE(server.port(), 0);
    EXPECT_TRUE(TcpClient(server.port()).connected());
}

TEST(TcpServerInterface, DoesNotOpenOnAPortThatIsTaken) {
    TcpServerInterface first;
    ASSERT_TRUE(first.open_tcp(0));
    wait_until([] { return thread_ids().size() == 1; }, "the accepting thread runs");
    auto const threads = thread_ids();
    TcpServerInterface second;
    EXPECT_FALSE(second.open_tcp(first.port()));
    EXPECT_FALSE(second.is_open());
    EXPECT_EQ(thread_ids(), threads);
    first.close();
    EXPECT_TRUE(second.open());
}

TEST(TcpServerInterface, WritesNothingWithoutAClient) {
    TcpServerInterface server;
    EXPECT_FALSE(write(server, "closed"));
    ASSERT_TRUE(server.open_tcp(0));
    EXPECT_FALSE(server.has_client());
    EXPECT_FALSE(write(server, "nobody there"));
    write_frame(server, {"nobody", " there"});
    TcpClient const client(server.port());
    wait_for_clients(server, 1);
    EXPECT_TRUE(write(server, "somebody"));
    EXPECT_EQ(client.read(8), "somebody");
}

TEST(TcpServerInterface, ReadsOnlyForItsReceivers) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    Recorder const recorder(server);
    TcpClient client(server.port());
    client.send("hello");
    wait_until([&] { return recorder.joined() == "hello"; }, "the bytes are received");
    unsigned char buffer[8];
    EXPECT_EQ(server.read(buffer, sizeof buffer), -1);
}

TEST(TcpServerInterface, ServesManyClientsAtOnce) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    Recorder const recorder(server);
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (int i = 0; i < 12; ++i) {
        clients.push_back(std::make_unique<TcpClient>(server.port()));
        ASSERT_TRUE(server.wait_for_client(20s));
    }
    EXPECT_EQ(server.client_count(), clients.size());
    EXPECT_TRUE(write(server, "to all"));
    for (auto const& client : clients) {
        EXPECT_EQ(client->read(6), "to all");
        client->send("x");
    }
    wait_until([&] { return recorder.joined().size() == clients.size(); }, "all have been heard");
}

TEST(TcpServerInterface, WaitsForAClientOncePerArrival) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    EXPECT_FALSE(server.wait_for_client(1ms));
    TcpClient const client(server.port());
    EXPECT_TRUE(server.wait_for_client(20s));
    EXPECT_TRUE(server.has_client());
    EXPECT_FALSE(server.wait_for_client(1ms));
}

TEST(TcpServerInterface, CloseEndsAWaitForAClient) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    std::atomic<pid_t> waiter_id{0};
    std::thread waiter([&] {
        waiter_id = ::gettid();
        EXPECT_FALSE(server.wait_for_client(1h));
    });
    wait_until([&] { return waiter_id != 0; }, "the waiter runs");
    wait_until_blocked_in(waiter_id, SYS_futex);
    server.close();
    waiter.join();
}

TEST(TcpServerInterface, ForgetsClientsThatVanishInTheMiddleOfAFrame) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    Recorder const recorder(server);
    TcpClient staying(server.port());
    TcpClient leaving(server.port());
    TcpClient failing(server.port());
    wait_for_clients(server, 3);
    leaving.send("half a fr");
    failing.send("the begin");
    wait_until([&] { return recorder.joined().size() == 18; }, "both halves are received");
    leaving.end_of_input();
    failing.abort();
    wait_for_clients(server, 1);
    EXPECT_TRUE(leaving.sees_the_end());
    EXPECT_TRUE(write(server, "still here"));
    EXPECT_EQ(staying.read(10), "still here");
    staying.send("me too");
    wait_until([&] { return recorder.joined().size() == 24; }, "the one that stays is heard");
}

TEST(TcpServerInterface, KeepsNothingOfClientsThatHaveGone) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    wait_until([] { return thread_ids().size() == 1; }, "the accepting thread runs");
    auto const descriptors = open_descriptors();
    auto const threads = thread_ids().size();
    for (int i = 0; i < 200; ++i) {
        TcpClient const client(server.port());
        ASSERT_TRUE(server.wait_for_client(20s));
    }
    wait_for_clients(server, 0);
    wait_until([&] { return open_descriptors() == descriptors; }, "their sockets are closed");
    wait_until([&] { return thread_ids().size() == threads; }, "their threads have ended");
}

TEST(TcpServerInterface, ClosesConnectionsBeyondItsLimitAtOnce) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    std::vector<std::unique_ptr<TcpClient>> clients;
    for (std::size_t i = 0; i < K_MAX_TCP_CLIENTS; ++i) {
        clients.push_back(std::make_unique<TcpClient>(server.port()));
        ASSERT_TRUE(server.wait_for_client(20s));
    }
    EXPECT_TRUE(TcpClient(server.port()).sees_the_end());
    EXPECT_EQ(server.client_count(), K_MAX_TCP_CLIENTS);
    clients.pop_back();
    wait_for_clients(server, K_MAX_TCP_CLIENTS - 1);
    clients.push_back(std::make_unique<TcpClient>(server.port()));
    EXPECT_TRUE(server.wait_for_client(20s));
}

TEST(TcpServerInterface, LetsAConnectionWaitWhileTheProcessIsOutOfDescriptors) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::array<tessaron::UniqueFd, 2> clients;
    for (tessaron::UniqueFd& client : clients) {
        client.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    rlimit former{};
    ::getrlimit(RLIMIT_NOFILE, &former);
    rlimit const none{0, former.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    for (tessaron::UniqueFd const& client : clients) {
        EXPECT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
                  0);
    }
    // A call to accept that was waiting may have set a descriptor aside for the first of them.
    EXPECT_LT(server.client_count(), 2U);
    ::setrlimit(RLIMIT_NOFILE, &former);
    wait_for_clients(server, 2);
}

TEST(TcpServerInterface, CloseEndsConnectionsWhoseClientsAreSilent) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const a(server.port());
    TcpClient const b(server.port());
    wait_for_clients(server, 2);
    EXPECT_TRUE(server.close());
    EXPECT_FALSE(server.is_open());
    EXPECT_EQ(server.client_count(), 0U);
    EXPECT_TRUE(a.sees_the_end());
    EXPECT_TRUE(b.sees_the_end());
    EXPECT_FALSE(TcpClient(server.port()).connected());
    EXPECT_TRUE(server.close());
}

TEST(TcpServerInterface, OpensAgainOnItsPortAfterItWasClosed) {
    auto const threads = thread_ids().size();
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    auto const port = server.port();
    for (int i = 0; i < 3; ++i) {
        TcpClient const client(port);
        wait_for_clients(server, 1);
        server.close();
        wait_until([&] { return thread_ids().size() == threads; }, "its threads are gone");
        ASSERT_TRUE(server.open());
        EXPECT_EQ(server.port(), port);
    }
}

TEST(TcpServerInterface, SurvivesClosingWhileClientsComeSendAndGo) {
    for (int round = 0; round < 20; ++round) {
        TcpServerInterface server;
        ASSERT_TRUE(server.open_tcp(0));
        auto const port = server.port();
        Recorder const recorder(server);
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&] {
                while (!stop) {
                    TcpClient client(port);
                    client.send("some bytes");
                    client.end_of_input();
                    client.sees_the_end(); // no more at once than the server has room for
                }
            });
        }
        threads.emplace_back([&] {
            while (!stop) {
                write_frame(server, {"to ", "all"});
            }
        });
        wait_until([&] { return !recorder.all().empty(); }, "there is traffic");
        server.close();
        stop = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(TcpServerInterface, NothingOfItIsInherited) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    TcpClient const client(server.port());
    wait_for_clients(server, 1);
    EXPECT_EQ(inheritable_sockets(), std::set<std::string>());
}

TEST(TcpServerInterface, AReceiverThatLetsGoDuringACallMayGoWhenTheCallIsOver) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    HeldReceiver receiver(server);
    TcpClient client(server.port());
    client.send("first");
    EXPECT_TRUE(receiver.may_go_no_earlier_than_its_call_ends(server));
}

TEST(TcpServerInterface, AReceiverMayWrite) {
    TcpServerInterface server;
    ASSERT_TRUE(server.open_tcp(0));
    auto const echo = server.add_receive_callback(
        [&](Bytes bytes, unsigned long&) { server.write(bytes, std::chrono::milliseconds(1)); });
    TcpClient client(server.port());
    client.send("echo");
    EXPECT_EQ(client.read(4), "echo");
    server.close();
}

} // namespace
