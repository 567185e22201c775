#pragma once

#include "mirelserver/Tunnel.hpp"
#include "tests/unit/mirelserver/run_until.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace mirelserver::test {

using boost::asio::ip::tcp;
using tessaron::tunnel::FrameHeader;
using tessaron::tunnel::FrameHeaderBytes;

/// The tunnel's limits with none that a test could reach by accident.
inline TunnelLimits patient() {
    std::chrono::seconds const long_time{100};
    return {long_time, long_time, long_time};
}

/// Tunnels whose machines are this test; all of it runs in `run_until`.
class TunnelTest : public testing::Test {
protected:
    ~TunnelTest() override {
        clients_->close_tunnels();
        context_.restart();
        context_.poll();
    }

    std::shared_ptr<Tunnel> connect(TunnelLimits limits = patient()) {
        return connect(machine_, limits);
    }

    std::shared_ptr<Tunnel> connect(tcp::socket& machine, TunnelLimits limits) {
        tcp::acceptor acceptor(context_, {boost::asio::ip::address_v4::loopback(), 0});
        machine.open(tcp::v4());
        machine.set_option(boost::asio::socket_base::receive_buffer_size(K_SMALL_WINDOW));
        machine.connect(acceptor.local_endpoint());
        auto tunnel = std::make_shared<Tunnel>(acceptor.accept(), clients_, nullptr, limits);
        tunnel->run();
        return tunnel;
    }

    std::shared_ptr<Tunnel> registered(TunnelLimits limits = patient()) {
        auto tunnel = connect(limits);
        send(tessaron::tunnel::FRAME_REGISTER, 0, "m");
        EXPECT_TRUE(run_until([this] { return has_tunnel("m"); }));
        return tunnel;
    }

    void send(std::uint8_t type, std::uint32_t stream, std::string_view payload = {}) {
        send_bytes(tessaron::tunnel::encode_frame(type, stream, payload));
    }

    /// Leaves while `run_until` runs: large ones must not wait for the tunnel to read.
    void send_bytes(std::string bytes) {
        auto const kept = std::make_shared<std::string>(std::move(bytes));
        boost::asio::async_write(machine_, boost::asio::buffer(*kept),
                                 [kept](boost::system::error_code, std::size_t) {});
    }

    /// The next frame of the tunnel's, which has to be one without a large payload.
    std::pair<FrameHeader, std::string> read_frame() {
        FrameHeaderBytes bytes{};
        if (read(boost::asio::buffer(bytes)) < bytes.size()) {
            return {};
        }
        auto const header = tessaron::tunnel::decode_header(bytes);
        std::string payload(header.length, '\0');
        read(boost::asio::buffer(payload));
        return {header, payload};
    }

    /// The machine's end of the connection has come.
    bool is_hung_up(tcp::socket& machine) {
        char byte = 0;
        bool ended = false;
        machine.async_read_some(
            boost::asio::buffer(&byte, 1),
            [&ended](boost::system::error_code error, std::size_t) { ended = !!error; });
        return run_until([&ended] { return ended; });
    }

    template <typename Condition>
    bool run_until(Condition condition) {
        return test::run_until(context_, condition);
    }

    bool has_tunnel(std::string const& name) const {
        auto const found = clients_->find(name, ClientTable::Clock::now());
        return found && found->tunnel;
    }

    boost::asio::io_context context_;
    std::shared_ptr<ClientTable> clients_ = std::make_shared<ClientTable>();
    tcp::socket machine_{context_};

private:
    static constexpr int K_SMALL_WINDOW = 64 * 1024;

    std::size_t read(boost::asio::mutable_buffer buffer) {
        std::size_t got = 0;
        bool done = false;
        boost::asio::async_read(machine_, buffer, [&](boost::system::error_code, std::size_t size) {
            got = size;
            done = true;
        });
        EXPECT_TRUE(run_until([&done] { return done; }));
        return got;
    }
};

/// What one stream brings, read as soon as it is there; also after the reader has gone.
class StreamReader {
public:
    explicit StreamReader(std::shared_ptr<Channel> stream) : channel(std::move(stream)) {
        read_next(channel, seen_);
    }

    std::string const& bytes() const { return seen_->bytes; }
    bool ended() const { return seen_->ended; }

    std::shared_ptr<Channel> const channel;

private:
    struct Seen {
        std::string bytes;
        bool ended = false;
    };

    static void read_next(std::shared_ptr<Channel> const& channel,
                          std::shared_ptr<Seen> const& seen) {
        channel->async_read([channel, seen](std::string const& next) {
            seen->bytes += next;
            seen->ended = next.empty();
            if (!seen->ended) {
                read_next(channel, seen);
            }
        });
    }

    std::shared_ptr<Seen> const seen_ = std::make_shared<Seen>();
};

} // namespace mirelserver::test
