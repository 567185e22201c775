#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"
#include "libraries/vocabulary/thread_annotations.hpp"

#include <mutex>
#include <vector>

namespace proto::interface {

/// Gathers what one thread writes between the begin and the end of a frame; other threads wait
/// with theirs until then, so that frames never mix.
///
/// Ownership: `end` hands the bytes out; who has sent them gives the memory back with `reuse`.
/// Thread safety: safe from any thread; one internal lock, which the thread that began a frame
/// holds until it ends it. `end` must come from that thread.
/// Errors: none.
class FrameCollector {
public:
    using Bytes = std::vector<unsigned char>;

    void begin();
    /// The frame's bytes.
    Bytes end();
    /// Takes bytes of a frame that this thread has begun. False, and nothing taken, outside of one.
    bool add(tessaron::CustomSpan<unsigned char> bytes);
    /// Takes back what `end` gave, for the memory's sake.
    void reuse(Bytes&& sent);

private:
    /// Recursive: `add` comes from the thread that holds it since `begin`.
    class TESSARON_CAPABILITY("mutex") FrameMutex {
    public:
        void lock() TESSARON_ACQUIRE() { mutex_.lock(); }
        void unlock() TESSARON_RELEASE() { mutex_.unlock(); }

    private:
        std::recursive_mutex mutex_;
    };
    class FrameLock;

    FrameMutex mutex_;
    bool in_frame_ TESSARON_GUARDED_BY(mutex_) = false;
    Bytes frame_ TESSARON_GUARDED_BY(mutex_);
    Bytes spare_ TESSARON_GUARDED_BY(mutex_); ///< empty; its memory serves the frame after next
};

} // namespace proto::interface
