#include "mirelserver/Tunnel.hpp"

#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
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
      slot_(std::move(slot)), limits_(limits) {
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
        self->read_header();
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
    send(encode_frame(FRAME_OPEN, last_id_, target));
}

void Tunnel::send_data(std::shared_ptr<TunnelStream> stream, std::string bytes,
                       Channel::WriteHandler handler) {
    asio::post(socket_.get_executor(),
               [self = shared_from_this(), stream = std::move(stream), bytes = std::move(bytes),
                handler = std::move(handler)]() mutable {
                   if (self->streams_.count(stream->id_) == 0) {
                       return handler(false);
                   }
                   self->send(encode_frame(FRAME_DATA, stream->id_, bytes), std::move(handler));
               });
}

void Tunnel::close_stream(std::shared_ptr<TunnelStream> stream) {
    asio::post(socket_.get_executor(), [self = shared_from_this(), stream = std::move(stream)] {
        stream->buffer_.end();
        if (self->streams_.erase(stream->id_) != 0) {
            self->send(encode_frame(FRAME_CLOSE, stream->id_));
        }
    });
}

void Tunnel::close() {
    asio::post(socket_.get_executor(), [self = shared_from_this()] { self->end(); });
}

void Tunnel::read_header() {
    asio::async_read(
        socket_, asio::buffer(header_bytes_),
        [self = shared_from_this()](ErrorCode error, std::size_t) { self->on_header(error); });
}

void Tunnel::on_header(ErrorCode error) {
    header_ = decode_header(header_bytes_);
    bool const is_in_order = name_.empty() ? header_.type == FRAME_REGISTER &&
                                                 header_.length <= ClientTable::K_MAX_NAME_SIZE
                                           : header_.length <= K_MAX_FRAME_PAYLOAD;
    if (error || ended_ || !is_in_order) {
        return end();
    }
    read_payload();
}

void Tunnel::read_payload() {
    payload_.assign(header_.length, '\0');
    asio::async_read(socket_, asio::buffer(payload_),
                     [self = shared_from_this()](ErrorCode failure, std::size_t) {
                         if (failure || self->ended_) {
                             return self->end();
                         }
                         self->on_frame();
                         if (!self->ended_) {
                             self->read_header();
                         }
                     });
}

void Tunnel::on_frame() {
    if (name_.empty()) {
        return on_register();
    }
    if (header_.type == FRAME_DATA) {
        deliver();
    } else if (header_.type == FRAME_CLOSE) {
        auto const found = streams_.find(header_.stream);
        if (found != streams_.end()) {
            found->second->buffer_.end();
            streams_.erase(found);
        }
    }
}

void Tunnel::on_register() {
    if (!clients_->attach(payload_, shared_from_this(), ClientTable::Clock::now())) {
        return end();
    }
    name_ = std::move(payload_);
    probe_later();
}

void Tunnel::deliver() {
    auto const found = streams_.find(header_.stream);
    if (found != streams_.end() && !found->second->buffer_.put(std::move(payload_))) {
        streams_.erase(found);
        send(encode_frame(FRAME_CLOSE, header_.stream));
    }
}

void Tunnel::send(std::string frame, Channel::WriteHandler handler) {
    if (ended_ || queue_size_ + frame.size() > limits_.queue_size) {
        if (handler) {
            handler(false);
        }
        return end();
    }
    queue_size_ += frame.size();
    queue_.push_back({std::move(frame), std::move(handler)});
    if (queue_.size() == 1) {
        send_front();
    }
}

void Tunnel::send_front() {
    asio::async_write(
        socket_, asio::buffer(queue_.front().frame),
        [self = shared_from_this()](ErrorCode error, std::size_t) { self->on_sent(error); });
}

void Tunnel::on_sent(ErrorCode error) {
    Outgoing const sent = std::move(queue_.front());
    queue_.pop_front();
    queue_size_ -= sent.frame.size();
    if (sent.handler) {
        sent.handler(!error);
    }
    if (error || ended_) {
        end();
        for (auto const& left : std::exchange(queue_, {})) {
            if (left.handler) {
                left.handler(false);
            }
        }
    } else if (!queue_.empty()) {
        send_front();
    }
}

void Tunnel::probe_later() {
    timer_.expires_after(limits_.probe_interval);
    timer_.async_wait([self = shared_from_this()](ErrorCode error) {
        if (error || self->ended_) {
            return;
        }
        if (self->queue_.empty()) { // else there are bytes to be acknowledged already
            self->send(encode_frame(FRAME_PROBE, 0));
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
