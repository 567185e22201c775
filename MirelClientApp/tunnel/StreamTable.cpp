#include "MirelClientApp/tunnel/StreamTable.hpp"

#include <utility>

namespace mirelclient {

using tessaron::MutexLock;

bool StreamTable::add(std::uint32_t id, StreamPtr const& stream) {
    StreamPtr unwanted = stream;
    bool added = false;
    {
        MutexLock const lock(mutex_);
        if (!closed_) {
            unwanted = std::exchange(streams_[id], stream);
            added = true;
        }
    }
    if (unwanted) {
        unwanted->close();
    }
    return added;
}

StreamTable::StreamPtr StreamTable::find(std::uint32_t id) const {
    MutexLock const lock(mutex_);
    auto const found = streams_.find(id);
    return found != streams_.end() ? found->second : nullptr;
}

void StreamTable::close(std::uint32_t id) {
    StreamPtr stream;
    {
        MutexLock const lock(mutex_);
        if (auto const found = streams_.find(id); found != streams_.end()) {
            stream = std::move(found->second);
            streams_.erase(found);
        }
    }
    if (stream) {
        stream->close();
    }
}

bool StreamTable::forget(std::uint32_t id, StreamPtr const& stream) {
    MutexLock const lock(mutex_);
    auto const found = streams_.find(id);
    if (found == streams_.end()) {
        return true;
    }
    if (found->second != stream) {
        return false;
    }
    streams_.erase(found);
    return true;
}

void StreamTable::close_all() {
    std::unordered_map<std::uint32_t, StreamPtr> streams;
    {
        MutexLock const lock(mutex_);
        closed_ = true;
        streams.swap(streams_);
    }
    for (auto const& [id, stream] : streams) {
        stream->close();
    }
}

} // namespace mirelclient
