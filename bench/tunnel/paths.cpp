#include "bench/tunnel/paths.hpp"

#include "bench/support/loopback.hpp"
#include "bench/tunnel/Backend.hpp"

#include <array>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr std::uint8_t K_OPEN = 2;
constexpr std::uint8_t K_DATA = 3;
constexpr std::uint8_t K_CLOSE = 4;
constexpr std::size_t K_HEADER = 9;

void put_u32(char* to, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        to[i] = static_cast<char>(value >> (24 - 8 * i));
    }
}

std::uint32_t get_u32(char const* from) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value = value << 8 | static_cast<unsigned char>(from[i]);
    }
    return value;
}

} // namespace

TcpPath::TcpPath(std::uint16_t port) : fd_(dial(port)), buffer_(K_CHUNK) {
}

TcpPath::~TcpPath() {
    close(fd_);
}

void TcpPath::write(std::string_view bytes) {
    send_all(fd_, bytes);
}

std::string_view TcpPath::read() {
    ssize_t const got = recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (got <= 0) {
        fail("recv");
    }
    return {buffer_.data(), static_cast<std::size_t>(got)};
}

class TunnelServer::Path : public IPath {
public:
    explicit Path(TunnelServer& server) : server_(server) {}
    ~Path() override { server_.send_frame(K_CLOSE, {}); }
    Path(Path const&) = delete;
    Path& operator=(Path const&) = delete;
    void write(std::string_view bytes) override { server_.send_frame(K_DATA, bytes); }
    std::string_view read() override { return server_.read_stream(); }

private:
    TunnelServer& server_;
};

TunnelServer::TunnelServer(int listener) : fd_(accept_on(listener)), inbox_(K_CHUNK) {
}

std::unique_ptr<IPath> TunnelServer::open() {
    ++stream_;
    send_frame(K_OPEN, "http");
    return std::make_unique<Path>(*this);
}

void TunnelServer::send_frame(std::uint8_t type, std::string_view payload) {
    std::array<char, K_HEADER> header;
    header[0] = static_cast<char>(type);
    put_u32(&header[1], stream_);
    put_u32(&header[5], static_cast<std::uint32_t>(payload.size()));
    std::array<iovec, 2> parts{
        {{header.data(), header.size()}, {const_cast<char*>(payload.data()), payload.size()}}};
    ssize_t const sent = writev(fd_, parts.data(), parts.size());
    if (sent < static_cast<ssize_t>(K_HEADER)) {
        fail("writev");
    }
    send_all(fd_, payload.substr(static_cast<std::size_t>(sent) - K_HEADER));
}

std::string_view TunnelServer::read_stream() {
    for (;;) {
        std::string_view const unread = inbox_.unread();
        if (payload_left_ > 0 && !unread.empty()) {
            std::string_view const bytes = unread.substr(0, payload_left_);
            inbox_.drop(bytes.size());
            payload_left_ -= bytes.size();
            if (payload_is_ours_) {
                return bytes;
            }
        } else if (payload_left_ == 0 && unread.size() >= K_HEADER) {
            payload_is_ours_ = unread[0] == K_DATA && get_u32(&unread[1]) == stream_;
            payload_left_ = get_u32(&unread[5]);
            inbox_.drop(K_HEADER);
        } else {
            inbox_.receive(fd_);
        }
    }
}

} // namespace bench
