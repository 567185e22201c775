#include "MirelClientApp/console/OutputPump.hpp"

#include "MirelClientApp/console/PtySession.hpp"
#include "libraries/threads/start_thread.hpp"

#include <span>
#include <system_error>

namespace mirelclient {

using tessaron::MutexLock;

namespace {

/// A smaller piece was all there was: an echo does not wait for another look.
constexpr std::size_t K_MORE_IS_LIKELY = 512;

} // namespace

void OutputPump::run() {
    take_turns(true);
    done_ = true;
    if (second_.joinable()) {
        second_.join();
    }
}

void OutputPump::take_turns(bool is_first) {
    Batch batch;
    while (!done_) {
        MutexLock reading(reading_);
        if (done_ || !read(batch)) {
            break;
        }
        bool const is_long = batch.count == K_READS_AT_ONCE;
        MutexLock const sending(sending_);
        if (is_long) {
            reading.unlock();
        }
        if (!send(batch)) {
            break;
        }
        if (is_first && is_long && !second_.joinable()) {
            start_second();
        }
    }
    done_ = true;
}

bool OutputPump::read(Batch& batch) {
    std::size_t size = session_.read_output(batch.pieces[0].data(), K_READ_SIZE);
    if (size == 0) {
        return false;
    }
    batch.messages[0] = {batch.pieces[0].data(), size};
    batch.count = 1;
    while (size >= K_MORE_IS_LIKELY && batch.count < K_READS_AT_ONCE) {
        auto& piece = batch.pieces[batch.count];
        size = session_.read_more_output(piece.data(), K_READ_SIZE);
        if (size > 0) {
            batch.messages[batch.count] = {piece.data(), size};
            ++batch.count;
        }
    }
    return true;
}

bool OutputPump::send(Batch const& batch) {
    return connection_.write_messages(WsConnection::K_BINARY,
                                      std::span(batch.messages).first(batch.count));
}

void OutputPump::start_second() {
    try {
        second_ = tessaron::start_thread("console-reader", [this] { take_turns(false); });
    } catch (std::system_error const&) {
        // No thread to be had: one does it all, as before.
    }
}

} // namespace mirelclient
