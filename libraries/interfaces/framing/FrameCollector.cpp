#include "libraries/interfaces/framing/FrameCollector.hpp"

#include <utility>

namespace proto::interface {

class TESSARON_SCOPED_CAPABILITY FrameCollector::FrameLock {
public:
    explicit FrameLock(FrameMutex& mutex) TESSARON_ACQUIRE(mutex) : mutex_(mutex) { mutex.lock(); }
    ~FrameLock() TESSARON_RELEASE() { mutex_.unlock(); }
    FrameLock(FrameLock const&) = delete;
    FrameLock& operator=(FrameLock const&) = delete;

private:
    FrameMutex& mutex_;
};

// The analysis follows no lock from one call to another.
void FrameCollector::begin() TESSARON_NO_TSA {
    mutex_.lock();
    frame_.clear();
    in_frame_ = true;
}

FrameCollector::Bytes FrameCollector::end() TESSARON_NO_TSA {
    in_frame_ = false;
    Bytes frame = std::exchange(frame_, std::move(spare_));
    spare_ = Bytes();
    mutex_.unlock();
    return frame;
}

bool FrameCollector::add(tessaron::CustomSpan<unsigned char> bytes) {
    FrameLock const lock(mutex_);
    if (in_frame_) {
        frame_.insert(frame_.end(), bytes.begin(), bytes.end());
    }
    return in_frame_;
}

void FrameCollector::reuse(Bytes&& sent) {
    FrameLock const lock(mutex_);
    if (sent.capacity() > spare_.capacity()) {
        spare_ = std::move(sent);
        spare_.clear();
    }
}

} // namespace proto::interface
