#pragma once

#include "libraries/tunnel/FrameParser.hpp"
#include "mirelserver/ClientTable.hpp"
#include "mirelserver/StreamBuffer.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace mirelserver {

class TunnelStream;

/// A frame of ours, empty: machines ignore types they don't know, but the kernel of one that is
/// gone does not acknowledge it.
inline constexpr std::uint8_t FRAME_PROBE = 0x7f;

struct TunnelLimits {
    std::chrono::milliseconds register_limit{10'000}; ///< From the connection to its first frame.
    std::chrono::milliseconds probe_interval{15'000};
    /// For how long a machine may leave sent bytes unacknowledged, or its window shut.
    std::chrono::milliseconds dead_limit{60'000};
    /// Bytes that wait for the machine to take them.
    std::size_t queue_size = std::size_t{128} * 1024 * 1024;
};

/// The server's end of one machine's tunnel: joins streams into frames, and frames to streams.
///
///     connected --FRAME_REGISTER--> registered --error, close(), a newer tunnel--> closed
///         |                                                                          ^
///         +------------any other frame, a bad name, silence--------------------------+
///
/// A stream exists from `open` until either side closes it; ids are not used twice while the
/// number lasts. Frames of unknown types and for unknown streams are ignored. The socket is always
/// read on: a stream whose reader is too slow ends (see `StreamBuffer`), and the others don't
/// notice. All frames go out through one queue; a stream has at most one piece in it.
///
/// Ownership: lives by the shared pointer in its pending read, and in the table while registered;
/// owns the socket, shares the streams.
/// Thread safety: `open`, `close` and what streams call are safe from any thread; all else runs on
/// the strand of the socket.
/// Errors: any on the socket, an oversized frame, and more than `queue_size` bytes that the
/// machine does not take end the tunnel and with it all of its streams.
class Tunnel : public IStreamOpener, public std::enable_shared_from_this<Tunnel> {
public:
    static constexpr std::size_t K_MAX_STREAMS = 1024;

    Tunnel(boost::asio::ip::tcp::socket socket, std::shared_ptr<ClientTable> clients,
           std::shared_ptr<void> slot, TunnelLimits limits);

    /// Starts the first operation; needs a shared pointer to exist.
    void run();

    std::shared_ptr<Channel> open(std::string target) override;
    void close() override;

    /// For the stream of this id, in the order of the calls.
    void send_data(std::shared_ptr<TunnelStream> stream, std::string bytes,
                   Channel::WriteHandler handler);
    void close_stream(std::shared_ptr<TunnelStream> stream);

private:
    using ErrorCode = boost::system::error_code;
    friend class tessaron::tunnel::FrameParser;
    struct Outgoing {
        tessaron::tunnel::FrameHeaderBytes header;
        std::string payload;
        Channel::WriteHandler handler; ///< May be empty.

        std::size_t size() const { return header.size() + payload.size(); }
    };
    /// How much is read at once, and how many frames are sent at once.
    static constexpr std::size_t K_READ_SIZE = std::size_t{128} * 1024;
    static constexpr std::size_t K_FRAMES_AT_ONCE = 16;

    void tune_socket();
    void read();
    void on_read(ErrorCode error, std::size_t size);
    bool on_header(tessaron::tunnel::FrameHeader const& header);
    void on_payload(std::string_view piece);
    bool on_frame_end();
    void on_register();
    void open_now(std::shared_ptr<TunnelStream> const& stream, std::string const& target);
    void deliver();
    void send(std::uint8_t type, std::uint32_t stream, std::string payload = {},
              Channel::WriteHandler handler = nullptr);
    void send_some();
    void on_sent(ErrorCode error, std::size_t count);
    void probe_later();
    void end();

    boost::asio::ip::tcp::socket socket_;
    boost::asio::steady_timer timer_;
    std::shared_ptr<ClientTable> clients_;
    std::shared_ptr<void> slot_;
    TunnelLimits const limits_;
    StreamBuffer::Total buffered_ = std::make_shared<std::atomic<std::size_t>>(0);

    std::string name_; ///< Empty until registered.
    bool ended_ = false;
    std::vector<char> input_;
    tessaron::tunnel::FrameParser parser_;
    tessaron::tunnel::FrameHeader header_; ///< Of the frame that is being read.
    std::string registered_name_;          ///< As far as it came.
    /// Data of one stream that came in one read, and whose it is.
    std::string incoming_;
    std::uint32_t incoming_stream_ = 0;
    std::unordered_map<std::uint32_t, std::shared_ptr<TunnelStream>> streams_;
    std::uint32_t last_id_ = 0;
    std::deque<Outgoing> queue_; ///< The first of them are being sent.
    std::size_t queue_size_ = 0;
    bool sending_ = false;
};

/// One stream of a tunnel.
class TunnelStream : public Channel, public std::enable_shared_from_this<TunnelStream> {
public:
    TunnelStream(std::shared_ptr<Tunnel> const& tunnel, StreamBuffer::Total total)
        : tunnel_(tunnel), buffer_(std::move(total)) {}

    void async_read(ReadHandler handler) override { buffer_.take(std::move(handler)); }
    void async_write(std::string bytes, WriteHandler handler) override;
    void close() override;

private:
    friend class Tunnel;

    std::weak_ptr<Tunnel> tunnel_;
    StreamBuffer buffer_;
    std::uint32_t id_ = 0; ///< Of the tunnel's strand; 0 while it is not open.
};

} // namespace mirelserver
