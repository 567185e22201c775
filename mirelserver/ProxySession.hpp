#pragma once

#include "mirelserver/Channel.hpp"

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace mirelserver {

/// What is to be done with one request of a machine.
struct ProxyRequest {
    std::string head;            ///< For the machine, up to and with the empty line.
    std::uint64_t body_size = 0; ///< Bytes of the browser's that follow it.
    bool upgrade = false;        ///< Bytes go both ways, without an end, until one side closes.
    bool expects_continue = false;
    std::string set_cookie; ///< Of the answer, if it is a 200; empty for none.
};

struct ProxyTimes {
    /// For a browser that takes or sends nothing in the middle of a body.
    std::chrono::milliseconds idle_limit{60'000};
    /// For a machine. Generous: a command or an installation may be what is waited for.
    std::chrono::milliseconds answer_limit{600'000};
    /// For what a browser still sends behind the end of the answer.
    std::chrono::milliseconds drain_limit{5'000};
};

/// The rest of a browser's connection: one request goes to a machine, and its answer comes back.
///
///     uploading:    browser -> channel, the body or without an end; then it watches for the
///                   browser to leave
///     downloading:  channel -> browser, at the same time; the head of the answer is edited
///     finishing:    the answer is out or cannot be had; what the browser still sends is dropped
///
/// Neither direction holds more than one piece: a slow browser slows its own reading only (what a
/// tunnel brings meanwhile waits in its `StreamBuffer`).
///
/// Ownership: lives by the shared pointer in its pending operations; owns the browser's socket,
/// closes the channel.
/// Thread safety: all its handlers run on the strand of its socket.
/// Errors: 502 if the machine ends without an answer, 504 if it is silent for `answer_limit`; an
/// answer that breaks off breaks the browser's connection off. A browser that closes its side, or
/// takes or sends nothing for `idle_limit` in the middle of a body, ends both.
class ProxySession : public std::enable_shared_from_this<ProxySession> {
public:
    static constexpr std::size_t K_MAX_ANSWER_HEAD_SIZE = std::size_t{64} * 1024;

    ProxySession(boost::beast::tcp_stream stream, boost::beast::flat_buffer input,
                 ProxyRequest request, std::shared_ptr<Channel> channel, std::shared_ptr<void> slot,
                 ProxyTimes times = {});
    ProxySession(ProxySession const&) = delete;
    ProxySession& operator=(ProxySession const&) = delete;
    ~ProxySession();

    /// Starts; on the strand of the socket, and a shared pointer exists.
    void run();

private:
    using ErrorCode = boost::beast::error_code;

    void start();
    void upload();
    void read_browser(std::size_t most);
    void on_browser(ErrorCode error, std::size_t size);
    void send_on(std::string bytes);
    void download();
    void on_answer(std::string bytes);
    void on_head_bytes(std::string const& bytes);
    void write_browser(std::string bytes);
    void refuse(unsigned status, char const* reason, char const* text);
    void finish();
    void drain();
    void end();

    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer input_;
    ProxyRequest request_;
    std::shared_ptr<Channel> channel_;
    std::shared_ptr<void> slot_;
    ProxyTimes const times_;
    boost::asio::steady_timer timer_; ///< For the answer; at the end for the draining.

    std::uint64_t upload_left_;
    std::vector<char> from_browser_;
    std::string to_browser_;
    std::string answer_head_; ///< What came of it, until it is whole.
    bool head_is_out_ = false;
    bool reading_ = false;
    bool waiting_ = false; ///< For the channel to read.
    bool finishing_ = false;
    std::size_t drained_ = 0;
};

} // namespace mirelserver
