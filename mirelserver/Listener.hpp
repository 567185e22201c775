#pragma once

#include "mirelserver/ConnectionLimit.hpp"
#include "mirelserver/RegistryRoutes.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>

namespace mirelserver {

/// Accepts HTTP connections and gives each an `HttpSession` on a strand of its own.
///
/// Ownership: lives by the shared pointer in its pending accept; `context` must outlive it.
/// Thread safety: its handlers run on a strand of their own.
/// Errors: the constructor throws `std::runtime_error` if the address cannot be listened on. A
/// connection beyond `K_MAX_CONNECTIONS` is closed at once; when descriptors run out, accepting
/// pauses for `K_ACCEPT_PAUSE`.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    static constexpr std::size_t K_MAX_CONNECTIONS = 4096;

    Listener(boost::asio::io_context& context, std::string const& address, unsigned short port,
             std::shared_ptr<RegistryRoutes const> routes);

    /// Starts accepting; needs a shared pointer to exist.
    void run();
    boost::asio::ip::tcp::endpoint endpoint() const { return acceptor_.local_endpoint(); }

private:
    void accept_next();
    void on_accepted(boost::system::error_code error, boost::asio::ip::tcp::socket socket);

    boost::asio::io_context& context_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    std::shared_ptr<RegistryRoutes const> routes_;
    ConnectionLimit limit_{K_MAX_CONNECTIONS};
};

} // namespace mirelserver
