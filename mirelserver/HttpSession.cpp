#include "mirelserver/HttpSession.hpp"

#include "mirelserver/DirectChannel.hpp"
#include "mirelserver/proxy_head.hpp"
#include "mirelserver/static_reply.hpp"
#include "mirelserver/url_path.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <chrono>
#include <ctime>
#include <limits>
#include <string>
#include <unistd.h>
#include <utility>

namespace mirelserver {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

/// The longest a peer may take to send a request, to accept one chunk, or to think in between.
constexpr std::chrono::seconds K_IDLE_LIMIT{60};
constexpr std::chrono::seconds K_DRAIN_LIMIT{5};
/// Of a heartbeat.
constexpr std::uint64_t K_MAX_BODY_SIZE = 4 * 1024;
constexpr std::uint32_t K_MAX_HEADER_SIZE = 16 * 1024;
constexpr std::size_t K_MAX_INPUT_SIZE = 32 * 1024;
constexpr std::size_t K_MAX_DRAIN_SIZE = 1024 * 1024;
constexpr std::size_t K_CHUNK_SIZE = 64 * 1024;

std::string_view view_of(beast::string_view text) {
    return {text.data(), text.size()};
}

/// "Sun, 06 Nov 1994 08:49:37 GMT"; the names stay English, as the locale is never set.
std::string http_date() {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%a, %d %b %Y %T GMT", &parts)};
}

} // namespace

HttpSession::HttpSession(asio::ip::tcp::socket socket, std::shared_ptr<RegistryRoutes const> routes,
                         std::shared_ptr<ClientTable> clients, std::shared_ptr<void> slot)
    : stream_(std::move(socket)), routes_(std::move(routes)), clients_(std::move(clients)),
      slot_(std::move(slot)), input_(K_MAX_INPUT_SIZE) {
}

void HttpSession::run() {
    asio::dispatch(stream_.get_executor(),
                   beast::bind_front_handler(&HttpSession::read_request, shared_from_this()));
}

void HttpSession::read_request() {
    parser_.emplace();
    parser_->header_limit(K_MAX_HEADER_SIZE);
    // Bodies are not read here, unless it is a heartbeat.
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    stream_.expires_after(K_IDLE_LIMIT);
    http::async_read_header(
        stream_, input_, *parser_,
        [self = shared_from_this()](ErrorCode error, std::size_t) { self->on_request(error); });
}

void HttpSession::on_request(ErrorCode error) {
    if (error == http::error::end_of_stream) {
        return close();
    }
    if (error && error.category() == http::make_error_code(http::error::bad_target).category()) {
        return refuse_malformed();
    }
    if (error) {
        return; // the peer is gone or too slow; the socket closes with the session
    }
    auto const& request = parser_->get();
    bool const host_is_missing = request.version() >= 11 && request.count(http::field::host) != 1;
    if (host_is_missing) {
        return refuse_malformed();
    }
    // A body is of no use to anything here, so it is not read: the connection ends instead.
    keep_alive_ = request.keep_alive() && parser_->is_done();
    http_version_ = request.version();
    head_only_ = request.method() == http::verb::head;
    auto const method = view_of(request.method_string());
    auto const target = view_of(request.target());
    if (auto const other = forward_of(method, target, view_of(request[http::field::cookie]))) {
        return forward(*other);
    }
    auto const path = path_of_target(target);
    if (is_client_route(path)) {
        return on_client_request(std::string(path));
    }
    if (is_static_path(path)) {
        return send(static_reply(method, path));
    }
    if (is_terminal_of_a_page(path)) {
        return send(error_reply(404, "no machine's page was opened in this browser"));
    }
    send(routes_->answer({view_of(request.method_string()), view_of(request.target()),
                          view_of(request[http::field::range])}));
}

void HttpSession::on_client_request(std::string const& path) {
    std::string const method = parser_->get().method_string().to_string();
    if (parser_->is_done()) {
        return send(answer_client_request(*clients_, method, path, {}));
    }
    if (parser_->content_length().value_or(0) > K_MAX_BODY_SIZE) {
        return send(error_reply(413, "the body is too large"));
    }
    parser_->body_limit(K_MAX_BODY_SIZE);
    text_parser_.emplace(std::move(*parser_));
    stream_.expires_after(K_IDLE_LIMIT);
    http::async_read(stream_, input_, *text_parser_,
                     [self = shared_from_this(), method, path](ErrorCode error, std::size_t) {
                         if (error == http::error::body_limit) {
                             return self->send(error_reply(413, "the body is too large"));
                         }
                         if (error) {
                             return;
                         }
                         self->keep_alive_ = self->text_parser_->get().keep_alive();
                         self->send(answer_client_request(*self->clients_, method, path,
                                                          self->text_parser_->get().body()));
                     });
}

void HttpSession::forward(Forward const& forward) {
    auto const client = clients_->find(forward.client, ClientTable::Clock::now());
    auto const& request = parser_->get();
    if (!client) {
        return send(error_reply(404, "unknown client"));
    }
    if (parser_->chunked()) {
        return send(error_reply(411, "the body needs a Content-Length"));
    }
    ProxyRequest proxied;
    proxied.upgrade = asks_for_upgrade(request);
    proxied.body_size = parser_->content_length().value_or(0);
    proxied.expects_continue =
        proxied.body_size > 0 && request[http::field::expect] == "100-continue";
    proxied.set_cookie = forward.is_page ? page_cookie(forward.client) : "";
    if (client->tunnel) {
        proxied.head = forwarded_head(request, forward, "localhost");
        return forward_over(client->tunnel->open("http"), std::move(proxied));
    }
    auto const address = parse_web_address(client->address);
    if (!address) {
        return send(error_reply(502, "the client has no tunnel and no usable address"));
    }
    proxied.head = forwarded_head(request, forward, address->authority);
    DirectChannel::connect(stream_.get_executor(), *address,
                           [self = shared_from_this(),
                            proxied = std::move(proxied)](std::shared_ptr<Channel> channel) {
                               if (channel) {
                                   self->forward_over(std::move(channel), proxied);
                               } else {
                                   self->send(error_reply(502, "the client cannot be reached"));
                               }
                           });
}

void HttpSession::forward_over(std::shared_ptr<Channel> channel, ProxyRequest request) {
    std::make_shared<ProxySession>(std::move(stream_), std::move(input_), std::move(request),
                                   std::move(channel), slot_)
        ->run();
}

void HttpSession::refuse_malformed() {
    keep_alive_ = false;
    http_version_ = 11;
    head_only_ = false;
    send(error_reply(400, "bad request"));
}

template <typename Message>
void HttpSession::fill_header(Message& message, Reply const& reply) const {
    message.version(http_version_);
    message.result(reply.status);
    message.set(http::field::server, "mirelserver");
    message.set(http::field::date, http_date());
    message.set(http::field::content_type, reply.content_type);
    for (auto const& [name, value] : reply.headers) {
        message.set(name, value);
    }
    message.keep_alive(keep_alive_);
}

void HttpSession::send(Reply reply) {
    stream_.expires_after(K_IDLE_LIMIT);
    reply.file ? send_file(std::move(reply)) : send_text(std::move(reply));
}

void HttpSession::send_text(Reply reply) {
    text_.emplace();
    fill_header(*text_, reply);
    text_->content_length(reply.body.size());
    if (!head_only_) {
        text_->body() = std::move(reply.body);
    }
    http::async_write(stream_, *text_, [self = shared_from_this()](ErrorCode error, std::size_t) {
        if (!error) {
            self->on_sent();
        }
    });
}

void HttpSession::send_file(Reply reply) {
    file_header_.emplace();
    fill_header(*file_header_, reply);
    file_header_->content_length(reply.slice.length);
    file_header_serializer_.emplace(*file_header_);
    file_ = std::move(reply.file);
    left_ = head_only_ ? ByteRange{} : reply.slice;
    chunk_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(left_.length, K_CHUNK_SIZE)));
    http::async_write_header(stream_, *file_header_serializer_,
                             [self = shared_from_this()](ErrorCode error, std::size_t) {
                                 if (!error) {
                                     self->send_next_chunk();
                                 }
                             });
}

void HttpSession::send_next_chunk() {
    if (left_.length == 0) {
        return on_sent();
    }
    auto const wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(left_.length, chunk_.size()));
    ssize_t const got =
        pread(file_->fd.get(), chunk_.data(), wanted, static_cast<off_t>(left_.offset));
    if (got <= 0) {
        return; // the length is promised already: only a broken connection tells the peer
    }
    left_.offset += static_cast<std::uint64_t>(got);
    left_.length -= static_cast<std::uint64_t>(got);
    stream_.expires_after(K_IDLE_LIMIT);
    asio::async_write(stream_, asio::buffer(chunk_.data(), static_cast<std::size_t>(got)),
                      [self = shared_from_this()](ErrorCode error, std::size_t) {
                          if (!error) {
                              self->send_next_chunk();
                          }
                      });
}

void HttpSession::on_sent() {
    text_.reset();
    file_.reset();
    chunk_ = {}; // an idle connection holds no buffer
    keep_alive_ ? read_request() : close();
}

void HttpSession::close() {
    ErrorCode ignored;
    stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    stream_.expires_after(K_DRAIN_LIMIT);
    chunk_.resize(K_CHUNK_SIZE);
    drain();
}

/// Reads what the peer still sends, within bounds: closing a socket with unread bytes would reset
/// the connection, and the peer could lose the reply.
void HttpSession::drain() {
    stream_.async_read_some(asio::buffer(chunk_),
                            [self = shared_from_this()](ErrorCode error, std::size_t size) {
                                self->drained_ += size;
                                if (!error && self->drained_ < K_MAX_DRAIN_SIZE) {
                                    self->drain();
                                }
                            });
}

} // namespace mirelserver
