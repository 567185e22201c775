#include "mirelserver/DirectChannel.hpp"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <fcntl.h>

namespace mirelserver {

namespace asio = boost::asio;
using asio::ip::tcp;
using ErrorCode = boost::system::error_code;

namespace {

constexpr std::chrono::seconds K_CONNECT_LIMIT{10};
constexpr std::size_t K_READ_SIZE = std::size_t{32} * 1024;

bool is_port(std::string_view text) {
    return !text.empty() && text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
           std::stoi(std::string(text)) <= 65535;
}

bool is_host(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == '.' || c == '-' || c == '_' || c == ':';
    });
}

/// One attempt: the resolver and the socket stop when the time is over.
struct Attempt : std::enable_shared_from_this<Attempt> {
    Attempt(asio::any_io_executor const& strand, DirectChannel::Handler done)
        : resolver(strand), socket(strand), timer(strand), handler(std::move(done)) {}

    void run(WebAddress const& address) {
        timer.expires_after(K_CONNECT_LIMIT);
        timer.async_wait([self = shared_from_this()](ErrorCode error) {
            if (!error) {
                ErrorCode ignored;
                self->timed_out = true;
                self->resolver.cancel();
                self->socket.close(ignored);
            }
        });
        resolver.async_resolve(
            address.host, address.port,
            [self = shared_from_this()](ErrorCode error, tcp::resolver::results_type const& found) {
                error || self->timed_out ? self->finish(false) : self->connect(found);
            });
    }

    void connect(tcp::resolver::results_type const& found) {
        asio::async_connect(socket, found,
                            [self = shared_from_this()](ErrorCode error, tcp::endpoint const&) {
                                self->finish(!error && !self->timed_out);
                            });
    }

    void finish(bool connected) {
        timer.cancel();
        if (!connected) {
            return handler(nullptr);
        }
        ErrorCode ignored;
        fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
        socket.set_option(tcp::no_delay(true), ignored);
        handler(std::make_shared<DirectChannel>(std::move(socket)));
    }

    tcp::resolver resolver;
    tcp::socket socket;
    asio::steady_timer timer;
    DirectChannel::Handler handler;
    bool timed_out = false;
};

} // namespace

std::optional<WebAddress> parse_web_address(std::string_view text) {
    if (auto const scheme_end = text.find("://"); scheme_end != std::string_view::npos) {
        if (text.substr(0, scheme_end) != "http") {
            return std::nullopt;
        }
        text.remove_prefix(scheme_end + 3);
    }
    text = text.substr(0, text.find('/'));
    WebAddress address{"", "80", std::string(text)};
    bool const is_bracketed = text.starts_with('[');
    auto const host_end = is_bracketed ? text.find(']') : std::min(text.find(':'), text.size());
    if (host_end == std::string_view::npos) {
        return std::nullopt;
    }
    address.host = text.substr(is_bracketed ? 1 : 0, host_end - (is_bracketed ? 1 : 0));
    text.remove_prefix(host_end + (is_bracketed ? 1 : 0));
    if (text.starts_with(':')) {
        address.port = text.substr(1);
        text = {};
    }
    if (!text.empty() || !is_host(address.host) || !is_port(address.port)) {
        return std::nullopt;
    }
    return address;
}

void DirectChannel::connect(asio::any_io_executor const& strand, WebAddress const& address,
                            Handler handler) {
    std::make_shared<Attempt>(strand, std::move(handler))->run(address);
}

void DirectChannel::async_read(ReadHandler handler) {
    incoming_.resize(K_READ_SIZE);
    socket_.async_read_some(
        asio::buffer(incoming_),
        [self = shared_from_this(), handler = std::move(handler)](ErrorCode, std::size_t size) {
            self->incoming_.resize(size);
            handler(std::move(self->incoming_));
        });
}

void DirectChannel::async_write(std::string bytes, WriteHandler handler) {
    outgoing_ = std::move(bytes);
    asio::async_write(socket_, asio::buffer(outgoing_),
                      [self = shared_from_this(), handler = std::move(handler)](
                          ErrorCode error, std::size_t) { handler(!error); });
}

void DirectChannel::close() {
    ErrorCode ignored;
    socket_.close(ignored);
}

} // namespace mirelserver
