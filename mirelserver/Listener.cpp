#include "mirelserver/Listener.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/strand.hpp>
#include <chrono>
#include <fcntl.h>
#include <stdexcept>
#include <utility>

namespace mirelserver {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr std::chrono::milliseconds K_ACCEPT_PAUSE{100};

/// Asio has no option for it.
void set_close_on_exec(int fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

} // namespace

Listener::Listener(asio::io_context& context, std::string const& address, unsigned short port,
                   std::size_t most, Handler handler)
    : context_(context), acceptor_(asio::make_strand(context)), pause_(acceptor_.get_executor()),
      handler_(std::move(handler)), limit_(most) {
    boost::system::error_code error;
    auto const host = asio::ip::make_address(address, error);
    if (error) {
        throw std::runtime_error("--listen needs a numeric address, not \"" + address + "\"");
    }
    tcp::endpoint const endpoint(host, port);
    acceptor_.open(endpoint.protocol());
    set_close_on_exec(acceptor_.native_handle());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint, error);
    if (!error) {
        acceptor_.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error) {
        throw std::runtime_error("cannot listen on " + address + " port " + std::to_string(port) +
                                 ": " + error.message());
    }
}

void Listener::run() {
    asio::dispatch(acceptor_.get_executor(), [self = shared_from_this()] { self->accept_next(); });
}

void Listener::accept_next() {
    acceptor_.async_accept(
        asio::make_strand(context_),
        [self = shared_from_this()](boost::system::error_code error, tcp::socket socket) {
            self->on_accepted(error, std::move(socket));
        });
}

void Listener::on_accepted(boost::system::error_code error, tcp::socket socket) {
    if (error) { // out of descriptors, most likely: at once it would fail again
        pause_.expires_after(K_ACCEPT_PAUSE);
        pause_.async_wait(
            [self = shared_from_this()](boost::system::error_code) { self->accept_next(); });
        return;
    }
    set_close_on_exec(socket.native_handle());
    if (auto slot = limit_.take()) {
        handler_(std::move(socket), std::move(slot));
    }
    accept_next();
}

} // namespace mirelserver
