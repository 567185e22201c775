#include "mirelserver/Tunnel.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <netinet/tcp.h>
#include <utility>

namespace mirelserver {

namespace asio = boost::asio;
using asio::ip::tcp;
using namespace tessaron::tunnel;

Tunnel::Tunnel(tcp::socket socket, std::shared_ptr<ClientTable> clients, std::shared_ptr<void> slot,
               TunnelLimits limits)
    : socket_(std::move(socket)), timer_(socket_.get_executor()), clients_(std::move(clients)),
      slot_(std::move(slot)), limits_(limits), input_(K_READ_SIZE) {
}

void Tunnel::run() {
    asio::dispatch(socket_.get_executor(), [self = shared_from_this()] {
        self->tune_socket();
        self->timer_.expires_after(self->limits_.register_limit);
        self->timer_.async_wait([self](ErrorCode error) {
            if (!error && self->name_.empty()) {
                self->end();
            }
        });
        self->read();
    });
}

void Tunnel::tune_socket() {
    ErrorCode ignored;
    socket_.set_option(tcp::no_delay(true), ignored);
    socket_.set_option(asio::socket_base::keep_alive(true), ignored);
    using UserTimeout = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_USER_TIMEOUT>;
    socket_.set_option(UserTimeout(static_cast<int>(limits_.dead_limit.count())), ignored);
}

std::shared_ptr<Channel> Tunnel::open(std::string target) {
    auto stream = std::make_shared<TunnelStream>(shared_from_this(), buffered_);
    asio::post(socket_.get_executor(),
               [self = shared_from_this(), stream, target = std::move(target)] {
                   self->open_now(stream, target);
               });
    return stream;
}

void Tunnel::open_now(std::shared_ptr<TunnelStream> const& stream, std::string const& target) {
    if (ended_ || streams_.size() >= K_MAX_STREAMS) {
        stream->buffer_.end();
        return;
    }
    do {
        ++last_id_;
    } while (last_id_ == 0 || streams_.count(last_id_) != 0);
    stream->id_ = last_id_;
    streams_.emplace(last_id_, stream);
    send(FRAME_OPEN, last_id_, target);
}

void Tunnel::send_data(std::shared_ptr<TunnelStream> stream, std::string bytes,
                       Channel::WriteHandler handler) {
    asio::post(socket_.get_executor(),
               [self = shared_from_this(), stream = std::move(stream), bytes = std::move(bytes),
                handler = std::move(handler)]() mutable {
                   if (self->streams_.count(stream->id_) == 0) {
                       return handler(false);
                   }
                   self->send(FRAME_DATA, stream->id_, std::move(bytes), std::move(handler));
               });
}

void Tunnel::close_stream(std::shared_ptr<TunnelStream> stream) {
    asio::post(socket_.get_executor(), [self = shared_from_this(), stream = std::move(stream)] {
        stream->buffer_.end();
        if (self->streams_.erase(stream->id_) != 0) {
            self->send(FRAME_CLOSE, stream->id_);
        }
    });
}

void Tunnel::close() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] { self->end(); });
}

void Tunnel::read() {
    socket_.async_read_some(asio::buffer(input_),
                            [self = shared_from_this()](ErrorCode error, std::size_t size) {
                                self->on_read(error, size);
                            });
}

void Tunnel::on_read(ErrorCode error, std::size_t size) {
    if (error || ended_ || !parser_.feed({input_.data(), size}, *this)) {
        return end();
    }
    deliver();
    if (!ended_) {
        read();
    }
}

bool Tunnel::on_header(FrameHeader const& header) {
    header_ = header;
    return name_.empty()
               ? header.type == FRAME_REGISTER && header.length <= ClientTable::K_MAX_NAME_SIZE
               : header.length <= K_MAX_FRAME_PAYLOAD;
}

void Tunnel::on_payload(std::string_view piece) {
    if (name_.empty()) {
        registered_name_ += piece;
    } else if (header_.type == FRAME_DATA) {
        if (header_.stream != incoming_stream_) {
            deliver();
        }
        incoming_stream_ = header_.stream;
        incoming_ += piece;
    }
}

bool Tunnel::on_frame_end() {
    if (name_.empty()) {
        on_register();
    } else if (header_.type == FRAME_CLOSE) {
        deliver();
        auto const found = streams_.find(header_.stream);
        if (found != streams_.end()) {
            found->second->buffer_.end();
            streams_.erase(found);
        }
    }
    return !ended_;
}

void Tunnel::on_register() {
    if (!clients_->attach(registered_name_, shared_from_this(), ClientTable::Clock::now())) {
        return end();
    }
    name_ = std::move(registered_name_);
    probe_later();
}

/// What a stream got in one read goes to its reader as one piece.
void Tunnel::deliver() {
    std::string bytes = std::exchange(incoming_, {});
    auto const found = bytes.empty() ? streams_.end() : streams_.find(incoming_stream_);
    if (found != streams_.end() && !found->second->buffer_.put(std::move(bytes))) {
        streams_.erase(found);
        send(FRAME_CLOSE, incoming_stream_);
    }
}

void Tunnel::send(std::uint8_t type, std::uint32_t stream, std::string payload,
                  Channel::WriteHandler handler) {
    auto const length = static_cast<std::uint32_t>(payload.size());
    Outgoing frame{encode_header({type, stream, length}), std::move(payload), std::move(handler)};
    if (ended_ || queue_size_ + frame.size() > limits_.queue_size) {
        if (frame.handler) {
            frame.handler(false);
        }
        return end();
    }
    queue_size_ += frame.size();
    queue_.push_back(std::move(frame));
    if (!sending_) {
        send_some();
    }
}

void Tunnel::send_some() {
    sending_ = true;
    std::size_t const count = std::min(queue_.size(), K_FRAMES_AT_ONCE);
    std::array<asio::const_buffer, 2 * K_FRAMES_AT_ONCE> buffers;
    for (std::size_t i = 0; i < count; ++i) {
        buffers[2 * i] = asio::buffer(queue_[i].header);
        buffers[2 * i + 1] = asio::buffer(queue_[i].payload);
    }
    asio::async_write(socket_, buffers,
                      [self = shared_from_this(), count](ErrorCode error, std::size_t) {
                          self->on_sent(error, count);
                      });
}

void Tunnel::on_sent(ErrorCode error, std::size_t count) {
    for (; count > 0; --count) {
        Outgoing const sent = std::move(queue_.front());
        queue_.pop_front();
        queue_size_ -= sent.size();
        if (sent.handler) {
            sent.handler(!error);
        }
    }
    sending_ = false;
    if (error || ended_) {
        end();
        for (auto const& left : std::exchange(queue_, {})) {
            if (left.handler) {
                left.handler(false);
            }
        }
    } else if (!queue_.empty()) {
        send_some();
    }
}

void Tunnel::probe_later() {
    timer_.expires_after(limits_.probe_interval);
    timer_.async_wait([self = shared_from_this()](ErrorCode error) {
        if (error || self->ended_) {
            return;
        }
        if (self->queue_.empty()) { // else there are bytes to be acknowledged already
            self->send(FRAME_PROBE, 0);
        }
        self->probe_later();
    });
}

/// What waits in the queue is told so when the write that is under way has failed.
void Tunnel::end() {
    if (std::exchange(ended_, true)) {
        return;
    }
    ErrorCode ignored;
    socket_.close(ignored);
    timer_.cancel();
    if (!name_.empty()) {
        clients_->detach(name_, this, ClientTable::Clock::now());
    }
    for (auto const& [id, stream] : std::exchange(streams_, {})) {
        stream->buffer_.end();
    }
}

void TunnelStream::async_write(std::string bytes, WriteHandler handler) {
    if (auto const tunnel = tunnel_.lock()) {
        tunnel->send_data(shared_from_this(), std::move(bytes), std::move(handler));
    } else {
        handler(false);
    }
}

void TunnelStream::close() {
    if (auto const tunnel = tunnel_.lock()) {
        tunnel->close_stream(shared_from_this());
    } else {
        buffer_.end();
    }
}

} // namespace mirelserver
