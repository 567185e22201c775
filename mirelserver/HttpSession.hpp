#pragma once

#include "mirelserver/ClientRoutes.hpp"
#include "mirelserver/ClientTable.hpp"
#include "mirelserver/ProxySession.hpp"
#include "mirelserver/RegistryRoutes.hpp"
#include "mirelserver/forward_rule.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/serializer.hpp>
#include <boost/beast/http/string_body.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirelserver {

/// One HTTP connection, from the accepted socket to its end: reads a request, asks the routes,
/// sends the reply, and again as long as the peer keeps the connection. A request that is another
/// machine's to answer takes the connection with it, into a `ProxySession`.
///
/// Ownership: lives by the shared pointer in its pending operation; shares the routes and the
/// clients and holds the listener's `slot` (see `ConnectionLimit`) until it ends. Thread safety:
/// all its handlers run on the strand of its socket, one at a time. Errors: any on the socket, a
/// malformed request and a peer that is silent for `K_IDLE_LIMIT` end the connection; nothing is
/// reported.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(boost::asio::ip::tcp::socket socket, std::shared_ptr<RegistryRoutes const> routes,
                std::shared_ptr<ClientTable> clients, std::shared_ptr<void> slot);

    /// Starts the first operation; needs a shared pointer to exist.
    void run();

private:
    using ErrorCode = boost::beast::error_code;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;
    using FileHeader = boost::beast::http::response<boost::beast::http::empty_body>;

    void read_request();
    void on_request(ErrorCode error);
    void on_client_request(std::string const& path);
    void forward(Forward const& forward);
    void forward_over(std::shared_ptr<Channel> channel, ProxyRequest request);
    void send(Reply reply);
    void send_text(Reply reply);
    void send_file(Reply reply);
    void send_next_chunk();
    void on_sent();
    void refuse_malformed();
    void close();
    void drain();

    template <typename Message>
    void fill_header(Message& message, Reply const& reply) const;

    boost::beast::tcp_stream stream_;
    std::shared_ptr<RegistryRoutes const> routes_;
    std::shared_ptr<ClientTable> clients_;
    std::shared_ptr<void> slot_;
    boost::beast::flat_buffer input_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> parser_;
    /// For the few requests whose body matters.
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> text_parser_;
    bool keep_alive_ = false;
    bool head_only_ = false;
    unsigned http_version_ = 11;

    // The reply on its way out.
    std::optional<Response> text_;
    std::optional<FileHeader> file_header_;
    std::optional<boost::beast::http::response_serializer<boost::beast::http::empty_body>>
        file_header_serializer_;
    std::optional<OpenFile> file_;
    ByteRange left_;
    std::vector<char> chunk_;
    std::size_t drained_ = 0;
};

} // namespace mirelserver
