#pragma once

#include "mirelserver/ConnectionLimit.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace mirelserver {

/// Accepts connections and hands each on, with a strand of its own.
///
/// Ownership: lives by the shared pointer in its pending accept; `context` must outlive it.
/// Thread safety: its handlers run on a strand of their own.
/// Errors: the constructor throws `std::runtime_error` if the address cannot be listened on. A
/// connection beyond `most` is closed at once; when descriptors run out, accepting
/// pauses for `K_ACCEPT_PAUSE`.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    /// Called on the listener's strand; `slot` is to live as long as the connection.
    using Handler =
        std::function<void(boost::asio::ip::tcp::socket socket, std::shared_ptr<void> slot)>;

    Listener(boost::asio::io_context& context, std::string const& address, unsigned short port,
             std::size_t most, Handler handler);

    /// Starts accepting; needs a shared pointer to exist.
    void run();
    boost::asio::ip::tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

private:
    void accept_next();
    void on_accepted(boost::system::error_code error, boost::asio::ip::tcp::socket socket);

    boost::asio::io_context& context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    Handler handler_;
    ConnectionLimit limit_;
};

} // namespace mirelserver
