#include "mirelserver/ProxySession.hpp"

#include "mirelserver/Reply.hpp"
#include "mirelserver/proxy_head.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <limits>
#include <netinet/tcp.h>
#include <utility>

namespace mirelserver {

namespace asio = boost::asio;
namespace beast = boost::beast;
using asio::ip::tcp;

namespace {

constexpr std::size_t K_MAX_DRAIN_SIZE = std::size_t{1024} * 1024;
constexpr std::size_t K_PIECE_SIZE = std::size_t{64} * 1024;
constexpr int K_DEAD_LIMIT_MS = 60'000;

} // namespace

ProxySession::ProxySession(beast::tcp_stream stream, beast::flat_buffer input, ProxyRequest request,
                           std::shared_ptr<Channel> channel, std::shared_ptr<void> slot,
                           ProxyTimes times)
    : stream_(std::move(stream)), input_(std::move(input)), request_(std::move(request)),
      channel_(std::move(channel)), slot_(std::move(slot)), times_(times),
      timer_(stream_.get_executor()),
      upload_left_(request_.upgrade ? std::numeric_limits<std::uint64_t>::max()
                                    : request_.body_size),
      from_browser_(K_PIECE_SIZE) {
}

ProxySession::~ProxySession() {
    channel_->close();
}

void ProxySession::run() {
    ErrorCode ignored;
    stream_.socket().set_option(tcp::no_delay(true), ignored);
    if (request_
            .upgrade) { // may be silent for days: the kernel is to notice a browser that is gone
        using UserTimeout = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_USER_TIMEOUT>;
        stream_.socket().set_option(asio::socket_base::keep_alive(true), ignored);
        stream_.socket().set_option(UserTimeout(K_DEAD_LIMIT_MS), ignored);
    }
    if (!request_.expects_continue) {
        return start();
    }
    to_browser_ = "HTTP/1.1 100 Continue\r\n\r\n";
    stream_.expires_after(times_.idle_limit);
    asio::async_write(stream_, asio::buffer(to_browser_),
                      [self = shared_from_this()](ErrorCode error, std::size_t) {
                          error ? self->end() : self->start();
                      });
}

void ProxySession::start() {
    download();
    send_on(std::move(request_.head));
}

void ProxySession::upload() {
    if (finishing_) {
        return;
    }
    auto const held =
        static_cast<std::size_t>(std::min<std::uint64_t>(upload_left_, input_.size()));
    if (held > 0) {
        std::string bytes(static_cast<char const*>(input_.data().data()), held);
        input_.consume(held);
        upload_left_ -= request_.upgrade ? 0 : held;
        return send_on(std::move(bytes));
    }
    read_browser(
        static_cast<std::size_t>(std::clamp<std::uint64_t>(upload_left_, 1, K_PIECE_SIZE)));
}

/// With the body complete, the end of the browser's side is all that is waited for.
void ProxySession::read_browser(std::size_t most) {
    if (request_.upgrade || upload_left_ == 0) {
        stream_.expires_never();
    } else {
        stream_.expires_after(times_.idle_limit);
    }
    reading_ = true;
    stream_.async_read_some(asio::buffer(from_browser_.data(), most),
                            [self = shared_from_this()](ErrorCode error, std::size_t size) {
                                self->on_browser(error, size);
                            });
}

void ProxySession::on_browser(ErrorCode error, std::size_t size) {
    reading_ = false;
    if (finishing_) {
        return error ? end() : drain();
    }
    if (error) {
        return end();
    }
    if (upload_left_ == 0) {
        return; // a further request, which gets no answer on this connection
    }
    upload_left_ -= request_.upgrade ? 0 : size;
    send_on(std::string(from_browser_.data(), size));
}

/// A machine that takes no more may still answer, so a failed write only ends the upload.
void ProxySession::send_on(std::string bytes) {
    channel_->async_write(std::move(bytes),
                          [self = shared_from_this(), strand = stream_.get_executor()](bool sent) {
                              if (sent) {
                                  asio::post(strand, [self] { self->upload(); });
                              }
                          });
}

void ProxySession::download() {
    waiting_ = true;
    if (!request_.upgrade) {
        timer_.expires_after(times_.answer_limit);
        timer_.async_wait([self = shared_from_this()](ErrorCode error) {
            bool const is_over = self->timer_.expiry() <= std::chrono::steady_clock::now();
            if (!error && is_over && std::exchange(self->waiting_, false)) {
                self->refuse(504, "Gateway Timeout", "the client does not answer");
            }
        });
    }
    channel_->async_read(
        [self = shared_from_this(), strand = stream_.get_executor()](std::string bytes) {
            asio::post(strand, [self, bytes = std::move(bytes)]() mutable {
                self->on_answer(std::move(bytes));
            });
        });
}

void ProxySession::on_answer(std::string bytes) {
    if (!std::exchange(waiting_, false) || finishing_) {
        return;
    }
    timer_.cancel();
    if (bytes.empty()) {
        return head_is_out_ ? finish() : refuse(502, "Bad Gateway", "the client gave no answer");
    }
    if (head_is_out_) {
        return write_browser(std::move(bytes));
    }
    if (request_.upgrade) {
        head_is_out_ = true;
        return write_browser(std::move(bytes));
    }
    on_head_bytes(bytes);
}

void ProxySession::on_head_bytes(std::string const& bytes) {
    answer_head_ += bytes;
    std::string_view const all = answer_head_;
    auto const end = all.substr(0, K_MAX_ANSWER_HEAD_SIZE).find("\r\n\r\n");
    if (end == std::string_view::npos && all.size() < K_MAX_ANSWER_HEAD_SIZE) {
        return download();
    }
    bool const is_success = all.size() > 12 && all.substr(8, 5) == " 200 ";
    std::string edited = end == std::string_view::npos
                             ? ""
                             : answered_head(all.substr(0, end + 4),
                                             is_success ? request_.set_cookie : std::string());
    if (edited.empty()) {
        return refuse(502, "Bad Gateway", "the client's answer is malformed");
    }
    edited += all.substr(end + 4);
    answer_head_ = {};
    head_is_out_ = true;
    write_browser(std::move(edited));
}

void ProxySession::write_browser(std::string bytes) {
    to_browser_ = std::move(bytes);
    stream_.expires_after(times_.idle_limit);
    asio::async_write(stream_, asio::buffer(to_browser_),
                      [self = shared_from_this()](ErrorCode error, std::size_t) {
                          if (error) {
                              self->end();
                          } else if (!self->finishing_) {
                              self->download();
                          }
                      });
}

/// After the head of an answer only a broken connection can tell the browser.
void ProxySession::refuse(unsigned status, char const* reason, char const* text) {
    channel_->close();
    if (std::exchange(head_is_out_, true)) {
        return end();
    }
    std::string const body = error_reply(status, text).body;
    to_browser_ =
        "HTTP/1.1 " + std::to_string(status) + " " + reason +
        "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\nConnection: close\r\n\r\n" + body;
    stream_.expires_after(times_.idle_limit);
    asio::async_write(stream_, asio::buffer(to_browser_),
                      [self = shared_from_this()](ErrorCode error, std::size_t) {
                          error ? self->end() : self->finish();
                      });
}

/// Reads on for a while, within bounds: closing a socket with unread bytes would reset the
/// connection, and the browser could lose the end of the answer.
void ProxySession::finish() {
    if (std::exchange(finishing_, true)) {
        return;
    }
    channel_->close();
    ErrorCode ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    timer_.expires_after(times_.drain_limit);
    timer_.async_wait([self = shared_from_this()](ErrorCode error) {
        if (!error) {
            self->end();
        }
    });
    if (!reading_) {
        drain();
    }
}

void ProxySession::drain() {
    if (drained_ >= K_MAX_DRAIN_SIZE) {
        return end();
    }
    drained_ += K_PIECE_SIZE;
    read_browser(K_PIECE_SIZE);
}

void ProxySession::end() {
    finishing_ = true;
    timer_.cancel();
    channel_->close();
    ErrorCode ignored;
    stream_.socket().close(ignored);
}

} // namespace mirelserver
