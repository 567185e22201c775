#include "mirelserver/Tunnel.hpp"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <vector>

namespace mirelserver {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace tessaron::tunnel;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// A tunnel whose machine is this test; all of it runs in `run_until`.
class TunnelTest : public testing::Test {
protected:
    ~TunnelTest() override {
        clients_->close_tunnels();
        context_.restart();
        context_.poll();
    }

    std::shared_ptr<Tunnel> connect(TunnelTimes times) {
        tcp::acceptor acceptor(context_, {asio::ip::address_v4::loopback(), 0});
        machine_.connect(acceptor.local_endpoint());
        auto tunnel = std::make_shared<Tunnel>(acceptor.accept(), clients_, nullptr, times);
        tunnel->run();
        return tunnel;
    }

    void send_name() { asio::write(machine_, asio::buffer(encode_frame(FRAME_REGISTER, 0, "m"))); }

    template <typename Condition>
    bool run_until(Condition condition) {
        auto const deadline = std::chrono::steady_clock::now() + seconds{30};
        while (!condition() && std::chrono::steady_clock::now() < deadline) {
            context_.restart();
            context_.run_one_for(seconds{1});
        }
        return condition();
    }

    bool has_tunnel() const {
        auto const found = clients_->find("m", ClientTable::Clock::now());
        return found && found->tunnel;
    }

    asio::io_context context_;
    std::shared_ptr<ClientTable> clients_ = std::make_shared<ClientTable>();
    tcp::socket machine_{context_};
};

TEST_F(TunnelTest, AConnectionThatStaysSilentIsClosed) {
    connect({milliseconds{20}, seconds{100}, seconds{100}});
    bool closed = false;
    char byte = 0;
    machine_.async_read_some(asio::buffer(&byte, 1), [&](boost::system::error_code error,
                                                         std::size_t) { closed = !!error; });
    EXPECT_TRUE(run_until([&] { return closed; }));
}

TEST_F(TunnelTest, AnIdleTunnelIsProbed) {
    connect({seconds{100}, milliseconds{10}, seconds{100}});
    send_name();
    FrameHeaderBytes bytes{};
    bool probed = false;
    asio::async_read(machine_, asio::buffer(bytes),
                     [&](boost::system::error_code error, std::size_t) { probed = !error; });
    ASSERT_TRUE(run_until([&] { return probed; }));
    EXPECT_EQ(decode_header(bytes), (FrameHeader{FRAME_PROBE, 0, 0}));
}

TEST_F(TunnelTest, AStreamTooManyEndsAtOnceAndTheOthersWithTheTunnel) {
    auto const tunnel = connect({seconds{100}, seconds{100}, seconds{100}});
    send_name();
    ASSERT_TRUE(run_until([this] { return has_tunnel(); }));
    std::size_t ended = 0;
    std::vector<std::shared_ptr<Channel>> streams;
    for (std::size_t i = 0; i < Tunnel::K_MAX_STREAMS + 1; ++i) {
        streams.push_back(tunnel->open("http"));
        streams.back()->async_read([&ended](std::string const& bytes) { ended += bytes.empty(); });
    }
    ASSERT_TRUE(run_until([&] { return ended > 0; }));
    EXPECT_EQ(ended, 1U);
    machine_.close();
    EXPECT_TRUE(run_until([&] { return ended == Tunnel::K_MAX_STREAMS + 1; }));
    EXPECT_FALSE(has_tunnel());
}

} // namespace
} // namespace mirelserver
