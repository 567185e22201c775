#pragma once

#include "app/utilities/file_io.hpp"

#include <unordered_set>
#include <vector>

namespace mirelclient {

/// The accepted connections that have not said anything yet, watched together with the listener.
///
/// A client connects before it sends. A thread started for it at once would go straight to sleep
/// and have to be woken a second time; one that is started when the first bytes are there finds
/// its request. And a client that never says anything costs a descriptor, not a thread.
///
/// Ownership: the connections, until `wait` hands them out or this object goes; not the listener.
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `is_open` is false if the system had no descriptor for it. A connection that cannot be
/// watched is handed out at once.
class SilentConnections {
public:
    explicit SilentConnections(int listen_fd);
    ~SilentConnections();
    SilentConnections(SilentConnections const&) = delete;
    SilentConnections& operator=(SilentConnections const&) = delete;

    bool is_open() const { return epoll_.is_open(); }

    /// Takes all of them and leaves an empty vector.
    void add(std::vector<tessaron::UniqueFd>& connections);

    /// Blocks until something happens. Adds the connections that have input, or have ended, to
    /// `talking`; true if the listener wants attention.
    [[nodiscard]] bool wait(std::vector<tessaron::UniqueFd>& talking);

private:
    tessaron::UniqueFd epoll_;
    int listen_fd_;
    std::unordered_set<int> waiting_;
    std::vector<tessaron::UniqueFd> unwatched_;
};

} // namespace mirelclient
