#pragma once

#include "mirelserver/Channel.hpp"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace mirelserver {

/// Where a machine says that its web server is.
struct WebAddress {
    std::string host; ///< A name or a number; an IPv6 number without its brackets.
    std::string port;
    std::string authority; ///< As it stands in a "Host" header.
};

/// Of "http://host:port", with or without the scheme, the port (80) and a path. Nothing for other
/// schemes and for what is no such address.
std::optional<WebAddress> parse_web_address(std::string_view text);

/// A connection of this server's own to a machine's web server.
///
/// Ownership: owns the socket, which lives as long as an operation on it.
/// Thread safety: only the strand that it was connected on.
class DirectChannel : public Channel, public std::enable_shared_from_this<DirectChannel> {
public:
    using Handler = std::function<void(std::shared_ptr<Channel> channel)>;

    /// Calls `handler` on `strand`, with null if there is no connection within
    /// `K_CONNECT_LIMIT`.
    static void connect(boost::asio::any_io_executor const& strand, WebAddress const& address,
                        Handler handler);

    explicit DirectChannel(boost::asio::ip::tcp::socket socket) : socket_(std::move(socket)) {}

    void async_read(ReadHandler handler) override;
    void async_write(std::string bytes, WriteHandler handler) override;
    void close() override;

private:
    boost::asio::ip::tcp::socket socket_;
    std::string incoming_;
    std::string outgoing_;
};

} // namespace mirelserver
