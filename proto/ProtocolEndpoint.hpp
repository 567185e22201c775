#pragma once

#include "libraries/vocabulary/IInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/FrameQueue.hpp"
#include "proto/RxContainer.hpp"
#include "proto/TxContainer.hpp"
#include "proto/frame_print.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace proto {

/// One end of a transport: receives frames and hands copies of them to one callback, and sends.
///
///     transport's reader -> RxContainer -> queue -> a worker -> the receive callback
///     any thread -> `send` -> TxContainer -> transport
///
/// The frame types are lists of fields, `Crc` is what their checksum is computed with (see
/// `FieldContainer`). The two buffers are given at construction, so that any number of endpoints of
/// one type can live side by side.
///
/// Ownership: buffers and interfaces are the user's. Both outlive the endpoint, or at least its
/// `stop()`.
/// Thread safety: `send`, `set_receive_callback`, `set_debug` and `set_source_match_value` from any
/// thread; `set_interfaces`, the channels and `stop` one thread at a time, the caller's duty. The
/// receive callback runs on one thread at a time, the transport's (`IInterface::follow_up`) or
/// "frame-worker", with no locks held, and may block; what it costs is in `FrameQueue`. `stop` must
/// be called neither by it nor by the transport's reader, and by it the transport not be closed.
/// Errors: an exception out of the receive callback ends the process.
template <typename RxTuple, typename TxTuple, typename Crc>
class ProtocolEndpoint {
public:
    using Rx = RxContainer<RxTuple, Crc>;
    using Tx = TxContainer<TxTuple, Crc>;
    using Frame = typename Rx::NamedCopies;
    using ReceiveCallback = std::function<void(Frame&&)>;

    /// The further arguments make the containers' CRC objects.
    template <typename... CrcArguments>
    ProtocolEndpoint(bool debug, FrameBuffers<RxTuple> rx_buffers, FrameBuffers<TxTuple> tx_buffers,
                     CrcArguments const&... crc_arguments)
        : rx_(rx_buffers, crc_arguments...), tx_(tx_buffers, crc_arguments...),
          frame_callback_(rx_.add_receive_callback([this](Rx&) { on_frame(); })) {
        set_debug(debug);
    }
    virtual ~ProtocolEndpoint() { stop(); }
    ProtocolEndpoint(ProtocolEndpoint const&) = delete;
    ProtocolEndpoint& operator=(ProtocolEndpoint const&) = delete;

    /// From now on, what `rx` receives is heard, and frames go out on `tx`. Those of an earlier
    /// call are let go of.
    virtual void set_interfaces(interface::IInterface& rx, interface::IInterface& tx) {
        let_go_of_interface();
        {
            tessaron::MutexLock const lock(send_mutex_);
            tx_.set_interface(tx);
        }
        rx_.reset(); // What another stream has left half read is nothing to this one.
        rx_interface_ = &rx;
        byte_callback_ = rx.add_receive_callback(
            [this](tessaron::CustomSpan<unsigned char> bytes, unsigned long& used) {
                if (rx_interface_->keeps_boundaries()) {
                    rx_.fill_with_whole(bytes, used);
                } else {
                    rx_.fill(bytes, used);
                }
                if (!rx_interface_->has_more_for_receivers() && !rx_interface_->follow_up(work_)) {
                    queue_->wake();
                }
            });
    }

    /// See `FrameQueue`.
    void set_receive_callback(ReceiveCallback callback, HandlerPace pace = HandlerPace::UNKNOWN,
                              typename FrameQueue<Frame>::Rest rest = {}) {
        queue_->set_handler(std::move(callback), pace, std::move(rest));
    }

    /// See `FrameQueue`.
    void begin_slow() { queue_->begin_slow(); }
    void end_slow() { queue_->end_slow(); }

    /// Sends a frame with the values of these `FieldInfo`s, and returns its size, 0 if there can be
    /// no such frame. Frames of several senders do not mix.
    template <typename... Infos>
    unsigned long send(Infos const&... infos) TESSARON_EXCLUDES(send_mutex_) {
        tessaron::MutexLock const lock(send_mutex_);
        return tx_.send_packet(infos...);
    }

    /// Hears no more, and returns when neither the transport's reader nor the worker is in this
    /// endpoint any more. Called by the destructor; a derived class whose members the receive
    /// callback uses calls it in its own.
    void stop() {
        queue_->request_stop(); // Now a reader that gives way to the worker moves on.
        let_go_of_interface();
        queue_->stop();
    }

    void set_debug(bool debug) TESSARON_EXCLUDES(send_mutex_) {
        rx_.set_debug(debug);
        tessaron::MutexLock const lock(send_mutex_);
        tx_.set_debug(debug);
    }
    void set_debug_flags(DebugPrintFlags flags) TESSARON_EXCLUDES(send_mutex_) {
        rx_.set_debug_flags(flags);
        tessaron::MutexLock const lock(send_mutex_);
        tx_.set_debug_flags(flags);
    }

    /// The address that frames are sent with, and whose frames are not received.
    void set_source_match_value(std::uint64_t address) TESSARON_EXCLUDES(send_mutex_) {
        rx_.set_source_match_value(address);
        tessaron::MutexLock const lock(send_mutex_);
        tx_.set_source_match_value(address);
    }
    /// The address that frames are sent with, while those of others with the same one are still to
    /// be heard; so are this end's own, where the transport brings them back.
    void set_sent_source_value(std::uint64_t address) TESSARON_EXCLUDES(send_mutex_) {
        rx_.set_source_match_value(~std::uint64_t{0});
        tessaron::MutexLock const lock(send_mutex_);
        tx_.set_source_match_value(address);
    }
    /// The channel that frames are sent with. Before `set_interfaces`.
    void set_channel_stamp_value(std::uint16_t channel) TESSARON_EXCLUDES(send_mutex_) {
        tessaron::MutexLock const lock(send_mutex_);
        tx_.set_channel_stamp_value(channel);
    }
    /// The channels, both included, that frames are received from. Before `set_interfaces`.
    void set_channel_accept_range(std::uint16_t low, std::uint16_t high) {
        rx_.set_channel_accept_range(low, high);
    }

private:
    /// On the transport's reader: the frame leaves the buffer, which the next one needs.
    void on_frame() {
        if (rx_.is_debug(DebugPrintFlags::Received)) {
            detail::print_packet_received();
            rx_.for_each_type([](auto const& field) { field.print(); });
        }
        queue_->push(rx_.get_named_copies(), true); // The worker is woken for all that came.
    }

    void let_go_of_interface() {
        byte_callback_.reset();
        if (rx_interface_ != nullptr) {
            rx_interface_->wait_for_callbacks();
            rx_interface_ = nullptr;
        }
    }

    Rx rx_; ///< The reader's.
    tessaron::Mutex send_mutex_;
    Tx tx_ TESSARON_GUARDED_BY(send_mutex_);
    std::shared_ptr<typename Rx::FrameCallback> frame_callback_;
    interface::IInterface* rx_interface_ = nullptr;
    std::shared_ptr<interface::IInterface::ReceiveCallback> byte_callback_;
    /// The last: its work ends before what it uses. A thread of the transport that is about to do
    /// some has it, too.
    std::shared_ptr<FrameQueue<Frame>> const queue_ = std::make_shared<FrameQueue<Frame>>();
    std::shared_ptr<interface::IInterface::FollowUp const> const work_ =
        std::make_shared<interface::IInterface::FollowUp const>(
            [queue = queue_] { queue->work(); });
};

} // namespace proto
