#pragma once

#include "libraries/vocabulary/IInterface.hpp"
#include "tests/unit/proto/bus_frame_model.hpp"

#include <chrono>
#include <vector>

namespace proto::test {

/// A transport without a wire: keeps the frames that are written, and delivers what it is told to.
/// It has no lock of its own: a sender is expected to write one frame at a time.
class RecordingInterface final : public interface::IInterface {
public:
    RecordingInterface() : IInterface("Recording interface") {}

    bool write(tessaron::CustomSpan<unsigned char> bytes,
               std::chrono::milliseconds timeout) override {
        ++writes;
        last_timeout = timeout;
        if (!in_frame_) {
            ++writes_outside_of_frames;
        }
        frame_.insert(frame_.end(), bytes.begin(), bytes.end());
        return accepts;
    }
    bool is_open() override { return true; }
    bool open() override { return true; }
    bool close() override { return true; }
    void begin_frame() override {
        frame_.clear();
        in_frame_ = true;
    }
    void end_frame() override {
        frames.push_back(frame_);
        in_frame_ = false;
    }
    long read(unsigned char*, unsigned long) override { return -1; }

    bool keeps_boundaries() const noexcept override { return is_datagram; }
    void deliver(Bytes bytes) { notify_receivers(span_of(bytes)); }

    bool accepts = true;
    bool is_datagram = false; ///< As of the next delivery.
    int writes = 0;
    int writes_outside_of_frames = 0;
    std::chrono::milliseconds last_timeout{0};
    std::vector<Bytes> frames;

private:
    bool in_frame_ = false;
    Bytes frame_;
};

} // namespace proto::test
