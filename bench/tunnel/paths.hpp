#pragma once

#include "bench/support/Inbox.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// A way to the backend; bytes go both ways.
class IPath {
public:
    virtual ~IPath() = default;
    virtual void write(std::string_view bytes) = 0;
    /// The next bytes, valid until the next call.
    virtual std::string_view read() = 0;
};

/// By a TCP connection: to the backend itself, or to whoever forwards it.
class TcpPath : public IPath {
public:
    explicit TcpPath(std::uint16_t port);
    ~TcpPath() override;
    TcpPath(TcpPath const&) = delete;
    TcpPath& operator=(TcpPath const&) = delete;
    void write(std::string_view bytes) override;
    std::string_view read() override;

private:
    int fd_;
    std::vector<char> buffer_;
};

/// The server's end of a tunnel with a single machine, and one stream in use at a time.
class TunnelServer {
public:
    /// Waits for the machine.
    explicit TunnelServer(int listener);
    /// Opens a stream; the one before is given up.
    std::unique_ptr<IPath> open();

private:
    class Path;

    void send_frame(std::uint8_t type, std::string_view payload);
    std::string_view read_stream();

    int fd_;
    std::uint32_t stream_ = 0;
    Inbox inbox_;
    std::size_t payload_left_ = 0; ///< Of the frame that has been begun.
    bool payload_is_ours_ = false;
};

} // namespace bench
