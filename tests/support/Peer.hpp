#pragma once

#include "app/utilities/file_io.hpp"

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <utility>

namespace mirelclient::test {

/// A connection as its other side sees it. Waits end after 20 seconds.
///
/// Ownership: the socket.
/// Thread safety: one thread at a time for each direction.
class Peer {
public:
    explicit Peer(tessaron::UniqueFd fd) : fd_(std::move(fd)) {
        timeval const limit{20, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }

    int fd() const { return fd_.get(); }
    void hang_up() { fd_.reset(); }
    /// Hangs up without waiting for what is on its way.
    void reset() {
        linger const at_once{1, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        fd_.reset();
    }

    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            ssize_t const sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    /// So many bytes, or what came before the end.
    std::string read(std::size_t size) {
        std::string bytes(size, '\0');
        std::size_t got = 0;
        while (got < size) {
            ssize_t const count = recv(fd_.get(), bytes.data() + got, size - got, 0);
            if (count <= 0) {
                break;
            }
            got += static_cast<std::size_t>(count);
        }
        bytes.resize(got);
        return bytes;
    }

    /// The other side has closed, and nothing is left to be read.
    bool is_at_end() {
        char byte = 0;
        ssize_t const count = recv(fd_.get(), &byte, 1, 0);
        return count == 0 || (count < 0 && errno == ECONNRESET);
    }

private:
    tessaron::UniqueFd fd_;
};

} // namespace mirelclient::test
