#pragma once

#include <functional>
#include <string>

namespace mirelserver {

/// One stream of bytes to and from a machine's web server, whichever way it runs.
///
/// At most one read and one write are pending at a time, the caller's duty.
///
/// Ownership: handlers are held until they were called, or the channel is closed and dies.
/// Thread safety: safe from any thread. Handlers run on any of the server's threads, possibly
/// within the call, with no lock held; they must not block.
/// Errors: a channel that failed reads as one that has ended.
class Channel {
public:
    using ReadHandler = std::function<void(std::string bytes)>;
    using WriteHandler = std::function<void(bool sent)>;

    Channel() = default;
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;
    virtual ~Channel() = default;

    /// Hands over what comes next; nothing at the end.
    virtual void async_read(ReadHandler handler) = 0;
    /// `handler` is called when there is room for more.
    virtual void async_write(std::string bytes, WriteHandler handler) = 0;
    /// Ends both directions; a pending read ends. Once is enough, more does no harm.
    virtual void close() = 0;
};

} // namespace mirelserver
