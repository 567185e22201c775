#pragma once

#include "MirelClientApp/tunnel/TunnelStream.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace mirelclient {

/// The open streams of one connection, by the ids that the server gave them.
///
/// Ownership: shares the streams with their threads.
/// Thread safety: safe from any thread; one internal lock, never held while a stream is used.
class StreamTable {
public:
    using StreamPtr = std::shared_ptr<TunnelStream>;

    /// Takes the id's place; a stream that had it until now is closed. False, and the new stream is
    /// closed, when the table was.
    [[nodiscard]] bool add(std::uint32_t id, StreamPtr const& stream) TESSARON_EXCLUDES(mutex_);
    /// Null if there is none.
    [[nodiscard]] StreamPtr find(std::uint32_t id) const TESSARON_EXCLUDES(mutex_);
    /// Closes the stream of that id, if there is one.
    void close(std::uint32_t id) TESSARON_EXCLUDES(mutex_);
    /// Takes out a stream that has ended. False when the id belongs to a newer one, which stays.
    [[nodiscard]] bool forget(std::uint32_t id, StreamPtr const& stream) TESSARON_EXCLUDES(mutex_);
    /// Closes all streams and lets no more in.
    void close_all() TESSARON_EXCLUDES(mutex_);

private:
    mutable tessaron::Mutex mutex_;
    std::unordered_map<std::uint32_t, StreamPtr> streams_ TESSARON_GUARDED_BY(mutex_);
    bool closed_ TESSARON_GUARDED_BY(mutex_) = false;
};

} // namespace mirelclient
