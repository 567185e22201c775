#include "mirelserver/ProxySession.hpp"
#include "tests/unit/mirelserver/run_until.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace mirelserver {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using std::chrono::milliseconds;

/// A machine that answers with what it is given, and is silent when that is used up.
class ScriptedMachine : public Channel {
public:
    void async_read(ReadHandler handler) override {
        if (!answer.empty()) {
            std::string next = std::move(answer.front());
            answer.pop_front();
            handler(std::move(next));
        } else if (endless) {
            handler(std::string(100'000, 'x'));
        } else if (closed) {
            handler({});
        } else {
            waiting_ = std::move(handler);
        }
    }
    void async_write(std::string bytes, WriteHandler handler) override {
        request += bytes;
        handler(takes_more);
    }
    void close() override {
        closed = true;
        endless = false;
        if (auto handler = std::exchange(waiting_, nullptr)) {
            handler({});
        }
    }

    std::deque<std::string> answer;
    bool endless = false;
    bool takes_more = true;
    std::string request;
    bool closed = false;

private:
    ReadHandler waiting_;
};

std::string head_of_size(std::size_t size) {
    std::string head = "HTTP/1.1 200 OK\r\nX: ";
    return head + std::string(size - head.size() - 4, 'h') + "\r\n\r\n";
}

/// A session between a browser and a machine that are both this test.
class ProxySessionTest : public testing::Test {
protected:
    void start(ProxyTimes times = {}, std::uint64_t body_size = 0) {
        tcp::acceptor acceptor(context_, {asio::ip::address_v4::loopback(), 0});
        browser_.open(tcp::v4());
        browser_.set_option(asio::socket_base::receive_buffer_size(64 * 1024));
        browser_.connect(acceptor.local_endpoint());
        ProxyRequest request;
        request.head = "GET / HTTP/1.1\r\n\r\n";
        request.body_size = body_size;
        auto const session = std::make_shared<ProxySession>(
            boost::beast::tcp_stream(acceptor.accept()), boost::beast::flat_buffer(),
            std::move(request), machine_, nullptr, times);
        session->run();
    }

    template <typename Condition>
    bool run_until(Condition condition) {
        return test::run_until(context_, condition);
    }

    /// All that the browser gets, up to the end of its connection.
    std::string whole_answer() {
        std::string text;
        bool ended = false;
        asio::async_read(browser_, asio::dynamic_buffer(text),
                         [&ended](boost::system::error_code, std::size_t) { ended = true; });
        EXPECT_TRUE(run_until([&ended] { return ended; }));
        return text;
    }

    asio::io_context context_;
    tcp::socket browser_{context_};
    std::shared_ptr<ScriptedMachine> machine_ = std::make_shared<ScriptedMachine>();
};

TEST_F(ProxySessionTest, AMachineThatIsSilentForTooLongIsAGatewayTimeout) {
    ProxyTimes times;
    times.answer_limit = milliseconds{20};
    start(times);
    std::string const body = R"({"error":"the client does not answer"})";
    EXPECT_EQ(whole_answer(), "HTTP/1.1 504 Gateway Timeout\r\nContent-Type: application/json\r\n"
                              "Content-Length: " +
                                  std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
                                  body);
    EXPECT_TRUE(machine_->closed);
}

TEST_F(ProxySessionTest, AMachineThatFallsSilentWithinItsHeadIsAGatewayTimeoutToo) {
    ProxyTimes times;
    times.answer_limit = milliseconds{20};
    machine_->answer = {"HTTP/1.1 200 OK\r\n"};
    start(times);
    EXPECT_TRUE(whole_answer().starts_with("HTTP/1.1 504 "));
}

TEST_F(ProxySessionTest, AnAnswerThatFallsSilentBreaksOffWhereItIs) {
    ProxyTimes times;
    times.answer_limit = milliseconds{20};
    machine_->answer = {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\npart"};
    start(times);
    EXPECT_EQ(whole_answer(),
              "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nConnection: close\r\n\r\npart");
    EXPECT_TRUE(machine_->closed);
}

TEST_F(ProxySessionTest, AHeadOfTheLargestSizePasses) {
    std::string const head = head_of_size(ProxySession::K_MAX_ANSWER_HEAD_SIZE);
    machine_->answer = {head.substr(0, 40'000), head.substr(40'000) + "body", ""};
    start();
    std::string const answer = whole_answer();
    EXPECT_TRUE(answer.starts_with(head.substr(0, head.size() - 2))) << answer.substr(0, 100);
    EXPECT_TRUE(answer.ends_with("\r\n\r\nbody"));
}

TEST_F(ProxySessionTest, ALargerHeadIsMalformedHoweverItComes) {
    std::string const head = head_of_size(ProxySession::K_MAX_ANSWER_HEAD_SIZE + 1);
    for (std::size_t const piece : {head.size(), std::size_t{30'000}}) {
        machine_ = std::make_shared<ScriptedMachine>();
        browser_ = tcp::socket(context_);
        for (std::size_t at = 0; at < head.size(); at += piece) {
            machine_->answer.push_back(head.substr(at, piece));
        }
        start();
        std::string const answer = whole_answer();
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 502 ")) << answer.substr(0, 100);
        EXPECT_TRUE(answer.ends_with(R"({"error":"the client's answer is malformed"})"));
    }
}

TEST_F(ProxySessionTest, ABrowserThatTakesNothingLosesItsStream) {
    ProxyTimes times;
    times.idle_limit = milliseconds{50};
    machine_->answer = {"HTTP/1.1 200 OK\r\n\r\n"};
    machine_->endless = true;
    start(times);
    EXPECT_TRUE(run_until([this] { return machine_->closed; }));
}

TEST_F(ProxySessionTest, ABrowserThatStopsWithinItsBodyLosesItsStream) {
    ProxyTimes times;
    times.idle_limit = milliseconds{50};
    start(times, 10);
    asio::write(browser_, asio::buffer("abc", 3));
    EXPECT_TRUE(run_until([this] { return machine_->closed; }));
    EXPECT_EQ(machine_->request, "GET / HTTP/1.1\r\n\r\nabc");
}

TEST_F(ProxySessionTest, AMachineThatTakesNoMoreMayStillAnswer) {
    machine_->takes_more = false;
    machine_->answer = {"HTTP/1.1 413 Enough\r\n\r\n", ""};
    start({}, 1'000'000);
    EXPECT_EQ(whole_answer(), "HTTP/1.1 413 Enough\r\nConnection: close\r\n\r\n");
}

TEST_F(ProxySessionTest, ABrowserThatStaysBehindTheAnswerIsLeftAfterAWhile) {
    ProxyTimes times;
    times.drain_limit = milliseconds{20};
    machine_->answer = {"HTTP/1.1 200 OK\r\n\r\n", ""};
    start(times);
    EXPECT_EQ(whole_answer(), "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
    // Our side stays open: only the session's own limit ends it, and its last reference with it.
    EXPECT_TRUE(run_until([this] { return machine_.use_count() == 1; }));
}

} // namespace
} // namespace mirelserver
