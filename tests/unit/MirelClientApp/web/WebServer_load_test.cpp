// Many clients at once, and clients that behave badly.

#include "MirelClientApp/web/WebServer.hpp"

#include "LoopbackClient.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace mirelclient::test;
using mirelclient::HttpRequest;
using mirelclient::HttpResponse;
using mirelclient::WebServer;
using tessaron::test::wait_until;

namespace {

constexpr std::size_t K_BIG = 1'500'000;

class WebServerLoad : public testing::Test {
protected:
    WebServerLoad() {
        server_->route("GET", "/", [](auto const&) { return HttpResponse::json("1", 200); });
        server_->route("GET", "/big", [this](auto const&) {
            ++big_answers_;
            return HttpResponse::json(std::string(K_BIG, 'x'), 200);
        });
        EXPECT_EQ(server_->start(), "");
        port_ = server_->port();
    }

    void expect_answer() { EXPECT_EQ(answer_to(port_, get("/")), json_answer("200 OK", "1")); }

    std::atomic<int> big_answers_ = 0;
    std::unique_ptr<WebServer> server_ =
        std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    std::uint16_t port_ = 0;
};

} // namespace

TEST_F(WebServerLoad, SilentConnectionsAndSlowReadersHoldNobodyUp) {
    std::list<LoopbackClient> silent;
    for (int i = 1; i <= 500; ++i) {
        ASSERT_TRUE(silent.emplace_back(port_).connected());
        if (i % 20 == 0) { // the backlog holds 32, and one more would wait for a second
            wait_until([&] { return silent.back().accepted(); }, "the last one is accepted");
        }
    }
    std::list<LoopbackClient> slow;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(slow.emplace_back(port_, 4096).send(get("/big")));
    }
    wait_until([&] { return big_answers_ == 50; }, "the slow readers' answers are on their way");
    for (int i = 0; i < 50; ++i) {
        expect_answer();
    }
    std::string const whole = json_answer("200 OK", std::string(K_BIG, 'x'));
    for (LoopbackClient& reader : slow) {
        EXPECT_TRUE(reader.read_all() == whole);
    }
    for (LoopbackClient& late : silent) {
        ASSERT_TRUE(late.send(get("/")));
    }
    for (LoopbackClient& late : silent) {
        EXPECT_EQ(late.read_all(), json_answer("200 OK", "1"));
    }
}

TEST_F(WebServerLoad, AClientThatLeavesDuringTheAnswerIsDroppedSilently) {
    std::signal(SIGPIPE, SIG_DFL); // a signal would end this process
    std::size_t const open = descriptor_count();
    for (int i = 1; i <= 20; ++i) {
        LoopbackClient client(port_, 4096);
        ASSERT_TRUE(client.send(get("/big")));
        wait_until([&] { return big_answers_ == i; }, "the answer is on its way");
        client.abort();
    }
    wait_until([&] { return descriptor_count() <= open; }, "the sockets are closed");
    expect_answer();
}

TEST_F(WebServerLoad, RequestsInARowReuseAFewThreads) {
    std::size_t const before = thread_count();
    for (int i = 0; i < 300; ++i) {
        expect_answer();
    }
    EXPECT_LT(thread_count(), before + 20);
}

TEST_F(WebServerLoad, ABurstLongerThanTheBacklogIsAnswered) {
    std::list<LoopbackClient> clients;
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(clients.emplace_back(port_).send(get("/")));
    }
    for (LoopbackClient& client : clients) {
        EXPECT_EQ(client.read_all(), json_answer("200 OK", "1"));
    }
}

TEST_F(WebServerLoad, NoHandlerRunsAfterADestructorUnderLoad) {
    std::atomic<bool> destroyed = false;
    std::atomic<int> answers = 0;
    std::atomic<int> late = 0;
    server_ = std::make_unique<WebServer>("127.0.0.1", static_cast<unsigned short>(0));
    server_->route("GET", "/", [&](auto const&) {
        late += destroyed ? 1 : 0;
        return HttpResponse::json("1", 200);
    });
    ASSERT_EQ(server_->start(), "");
    port_ = server_->port();

    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([&] {
            for (;;) {
                LoopbackClient client(port_);
                if (!client.connected()) {
                    return;
                }
                client.send(get("/"));
                std::string text(1024, '\0'); // may also be a reset, or an end
                ssize_t const got = ::recv(client.fd(), text.data(), text.size(), MSG_WAITALL);
                if (got > 0) {
                    EXPECT_EQ(text.substr(0, static_cast<std::size_t>(got)),
                              json_answer("200 OK", "1"));
                    ++answers;
                }
            }
        });
    }
    wait_until([&] { return answers >= 200; }, "the load is on");
    server_.reset();
    destroyed = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(late, 0);
}
