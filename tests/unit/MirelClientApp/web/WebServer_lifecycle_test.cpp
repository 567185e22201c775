// Start, stop and what the server leaves to others.

#include "MirelClientApp/web/WebServer.hpp"

#include "LoopbackClient.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

using namespace mirelclient::test;
using mirelclient::HttpRequest;
using mirelclient::HttpResponse;
using mirelclient::WebServer;
using tessaron::UniqueFd;
using tessaron::test::wait_until;

namespace {

HttpResponse ok(HttpRequest const&) {
    return HttpResponse::json("1", 200);
}

bool port_is_open(std::uint16_t port) {
    return LoopbackClient(port).connected();
}

/// Lowers a limit of this process for the length of a test.
class SoftLimit {
public:
    SoftLimit(__rlimit_resource resource, rlim_t value) : resource_(resource) {
        ::getrlimit(resource_, &before_);
        rlimit const lowered{value, before_.rlim_max};
        ::setrlimit(resource_, &lowered);
    }
    ~SoftLimit() { ::setrlimit(resource_, &before_); }
    SoftLimit(SoftLimit const&) = delete;
    SoftLimit& operator=(SoftLimit const&) = delete;

private:
    __rlimit_resource resource_;
    rlimit before_{};
};

std::set<int> open_descriptors() {
    std::set<int> result;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int const fd = std::atoi(entry.path().filename().c_str());
        if (::fcntl(fd, F_GETFD) >= 0) {
            result.insert(fd);
        }
    }
    return result;
}

} // namespace

TEST(WebServerStart, ServesOnTheFreePortItGot) {
    WebServer server("127.0.0.1", 0);
    server.route("GET", "/", ok);
    EXPECT_EQ(server.port(), 0);
    ASSERT_EQ(server.start(), "");
    EXPECT_NE(server.port(), 0);
    EXPECT_EQ(answer_to(server.port(), get("/")), json_answer("200 OK", "1"));
}

TEST(WebServerStart, AnEmptyAddressAndZeroesMeanAllInterfaces) {
    for (char const* address : {"", "0.0.0.0"}) {
        WebServer server(address, 0);
        server.route("GET", "/", ok);
        ASSERT_EQ(server.start(), "");
        EXPECT_EQ(answer_to(server.port(), get("/")), json_answer("200 OK", "1"));
    }
}

TEST(WebServerStart, RefusesWhatIsNoDottedAddress) {
    for (std::string const address : {"localhost", "::1", "1.2.3", "127.0.0.1 ", "256.0.0.1"}) {
        WebServer server(address, 0);
        EXPECT_EQ(server.start(), "invalid bind address: " + address);
    }
}

TEST(WebServerStart, TellsThatAPortIsTakenAndCanBeRepeated) {
    auto holder = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    ASSERT_EQ(holder->start(), "");
    WebServer server("127.0.0.1", holder->port());
    server.route("GET", "/", ok);
    std::size_t const open = descriptor_count();
    EXPECT_EQ(server.start(), "bind() failed: Address already in use");
    EXPECT_EQ(descriptor_count(), open);
    holder.reset();
    ASSERT_EQ(server.start(), "");
    EXPECT_EQ(answer_to(server.port(), get("/")), json_answer("200 OK", "1"));
}

TEST(WebServerStart, TellsThatAnAddressIsNotOurs) {
    WebServer server("192.0.2.1", 0);
    EXPECT_EQ(server.start(), "bind() failed: Cannot assign requested address");
}

TEST(WebServerStart, TellsThatThereIsNoSocket) {
    WebServer server("127.0.0.1", 0);
    {
        SoftLimit const none(RLIMIT_NOFILE, 0);
        EXPECT_EQ(server.start(), "socket() failed: Too many open files");
    }
    EXPECT_EQ(server.start(), "");
}

TEST(WebServerStart, ASecondStartLeavesTheServerAlone) {
    WebServer server("127.0.0.1", 0);
    ASSERT_EQ(server.start(), "");
    std::uint16_t const port = server.port();
    EXPECT_EQ(server.start(), "");
    EXPECT_EQ(server.port(), port);
}

TEST(WebServerStop, MayBeRepeatedAndComeWithoutAStart) {
    WebServer server("127.0.0.1", 0);
    server.stop();
    ASSERT_EQ(server.start(), "");
    server.stop();
    server.stop();
}

TEST(WebServerStop, ClosesThePortAndStartOpensItAgain) {
    WebServer server("127.0.0.1", 0);
    server.route("GET", "/", ok);
    ASSERT_EQ(server.start(), "");
    std::uint16_t const port = server.port();
    server.stop();
    EXPECT_FALSE(port_is_open(port));
    ASSERT_EQ(server.start(), "");
    EXPECT_EQ(answer_to(server.port(), get("/")), json_answer("200 OK", "1"));
}

TEST(WebServerStop, ARequestThatIsCompleteOnlyAfterwardsEntersNoHandler) {
    std::atomic<int> entered = 0;
    auto server = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    server->route("GET", "/", [&](auto const& request) {
        ++entered;
        return ok(request);
    });
    server->route_ws("GET", "/ws", [&](int fd, auto const&) {
        UniqueFd const socket(fd);
        ++entered;
    });
    ASSERT_EQ(server->start(), "");
    wait_until([] { return thread_count() == 0; }, "the threads of earlier servers have left");
    LoopbackClient early(server->port());
    LoopbackClient early_ws(server->port());
    early.send("GET / HTTP/1.1\r\n");
    early_ws.send("GET /ws HTTP/1.1\r\n");
    wait_until([&] { return thread_count() == 2; }, "both have their threads");
    server->stop();
    EXPECT_TRUE(early.is_silent());
    early.send("\r\n");
    EXPECT_EQ(early.read_all(), "");
    server.reset(); // does not wait for the unfinished one
    EXPECT_TRUE(early_ws.is_silent());
    early_ws.send("\r\n");
    EXPECT_EQ(early_ws.read_all(), "");
    EXPECT_EQ(entered, 0);
}

TEST(WebServerStop, AConnectionThatHasSaidNothingIsClosed) {
    WebServer server("127.0.0.1", 0);
    ASSERT_EQ(server.start(), "");
    LoopbackClient silent(server.port());
    wait_until([&] { return silent.accepted(); }, "the connection is accepted");
    server.stop();
    EXPECT_EQ(silent.read_all(), "");
}

TEST(WebServerStop, DoesNotWaitForARunningHandlerWhoseAnswerStillArrives) {
    std::atomic<bool> entered = false;
    std::atomic<bool> release = false;
    WebServer server("127.0.0.1", 0);
    server.route("GET", "/", [&](auto const& request) {
        entered = true;
        release.wait(false);
        return ok(request);
    });
    ASSERT_EQ(server.start(), "");
    LoopbackClient client(server.port());
    client.send(get("/"));
    wait_until([&] { return entered.load(); }, "the handler runs");
    server.stop();
    release = true;
    release.notify_all();
    EXPECT_EQ(client.read_all(), json_answer("200 OK", "1"));
}

TEST(WebServerDestructor, WaitsForARunningHandler) {
    std::atomic<bool> entered = false;
    std::atomic<bool> finished = false;
    auto server = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    std::uint16_t port = 0;
    server->route("GET", "/", [&](auto const& request) {
        entered = true;
        wait_until([&] { return !port_is_open(port); }, "the destructor has closed the port");
        for (int i = 0; i < 1000; ++i) {
            std::this_thread::yield(); // time for a destructor that does not wait to return
        }
        finished = true;
        return ok(request);
    });
    ASSERT_EQ(server->start(), "");
    port = server->port();
    LoopbackClient client(port);
    client.send(get("/"));
    wait_until([&] { return entered.load(); }, "the handler runs");
    server.reset();
    EXPECT_TRUE(finished);
    EXPECT_EQ(client.read_all(), json_answer("200 OK", "1"));
}

TEST(WebServerDestructor, WaitsForAWebSocketHandlerUntilItsSocketIsShutDown) {
    std::atomic<int> socket = -1;
    std::atomic<bool> finished = false;
    auto server = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    server->route_ws("GET", "/ws", [&](int fd, auto const&) {
        UniqueFd const owned(fd);
        socket = fd;
        char byte = 0;
        EXPECT_EQ(::recv(fd, &byte, 1, 0), 0);
        finished = true;
    });
    ASSERT_EQ(server->start(), "");
    LoopbackClient client(server->port());
    client.send(get("/ws"));
    wait_until([&] { return socket >= 0; }, "the handler has the socket");
    ::shutdown(socket, SHUT_RDWR);
    server.reset();
    EXPECT_TRUE(finished);
}

TEST(WebServerDestructor, DestroysTheHandlersAlthoughARequestIsUnfinished) {
    auto const captured = std::make_shared<int>(0);
    auto server = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    server->route("GET", "/", [captured](auto const& request) { return ok(request); });
    ASSERT_EQ(server->start(), "");
    wait_until([] { return thread_count() == 0; }, "the threads of earlier servers have left");
    LoopbackClient unfinished(server->port());
    unfinished.send("GET");
    wait_until([&] { return thread_count() == 1; }, "it has its thread");
    server.reset();
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_TRUE(unfinished.is_silent());
}

TEST(WebServerDescriptors, AreCloseOnExecAndAConnectionBlocks) {
    std::set<int> const before = open_descriptors();
    WebServer server("127.0.0.1", 0);
    std::set<int> inheritable;
    std::set<int> non_blocking;
    server.route_ws("GET", "/", [&](int fd, auto const&) {
        UniqueFd const socket(fd);
        for (int const open : open_descriptors()) {
            if (!before.contains(open) && (::fcntl(open, F_GETFD) & FD_CLOEXEC) == 0) {
                inheritable.insert(open);
            }
        }
        if ((::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0) {
            non_blocking.insert(fd);
        }
        EXPECT_TRUE(tessaron::write_all(fd, "seen"));
    });
    ASSERT_EQ(server.start(), "");
    EXPECT_EQ(answer_to(server.port(), get("/")), "seen");
    EXPECT_EQ(inheritable, std::set<int>{});
    EXPECT_EQ(non_blocking, std::set<int>{});
}

TEST(WebServerDescriptors, AConnectionThatFindsNoneIsServedOnceThereIsOne) {
    WebServer server("127.0.0.1", 0);
    server.route("GET", "/", ok);
    ASSERT_EQ(server.start(), "");
    UniqueFd const unconnected(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(server.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    {
        SoftLimit const few(RLIMIT_NOFILE, 64);
        std::vector<UniqueFd> all;
        for (int fd = -1; (fd = ::fcntl(unconnected.get(), F_DUPFD_CLOEXEC, 0)) >= 0;) {
            all.emplace_back(fd);
        }
        ASSERT_EQ(
            ::connect(unconnected.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
            0);
        std::string const request = get("/");
        ASSERT_EQ(::send(unconnected.get(), request.data(), request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(request.size()));
        char byte = 0;
        EXPECT_LT(::recv(unconnected.get(), &byte, 1, MSG_DONTWAIT), 0);
    }
    std::string text(1024, '\0');
    ssize_t const got = ::recv(unconnected.get(), text.data(), text.size(), MSG_WAITALL);
    ASSERT_GT(got, 0);
    EXPECT_EQ(text.substr(0, static_cast<std::size_t>(got)), json_answer("200 OK", "1"));
}

TEST(WebServerDeathTest, AnExceptionOfNoStandardTypeEndsTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            WebServer server("127.0.0.1", 0);
            server.route("GET", "/", [](auto const&) -> HttpResponse { throw 5; });
            if (server.start().empty()) {
                answer_to(server.port(), get("/"));
            }
        },
        "terminat");
}

TEST(WebServerDeathTest, AnExceptionOutOfAWebSocketHandlerEndsTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            WebServer server("127.0.0.1", 0);
            server.route_ws("GET", "/",
                            [](int, auto const&) { throw std::runtime_error("not caught"); });
            if (server.start().empty()) {
                answer_to(server.port(), get("/"));
            }
        },
        "terminat");
}
