#pragma once

#include "bus/WireFrame.hpp"
#include "libraries/vocabulary/CustomSpan.hpp"
#include "libraries/vocabulary/IInterface.hpp"

#include <cstdint>
#include <functional>
#include <memory>

namespace tessaron::bus {

/// A frame as it came: its options resolved, and what only the receive path asks for.
struct ReceivedFrame {
    WireFrame frame;
    std::uint8_t version = 0;
    bool has_data = false; ///< Not set for the one type that has no data field on the wire.
};

/// A node's end of the wire: the protocol endpoint of the bus frame, with values in place of
/// fields.
///
/// Ownership: owns the endpoint and its worker thread; the two buffers and the interfaces are the
/// caller's and outlive it.
/// Thread safety: safe from any thread. The receiver runs on the endpoint's worker, one frame at a
/// time, in order of arrival; it must not throw, and must not call `set_interfaces` or `stop`.
/// Errors: `send` returns 0. Nobody is told of a frame that was lost.
class BusWire {
public:
    using Buffer = CustomSpan<unsigned char>;
    using Receiver = std::function<void(ReceivedFrame&&)>;
    /// What the receiver has left to do; see `proto::FrameQueue`.
    using Rest = std::function<void(bool may_take_long)>;

    /// Sent in every frame; received ones of any other are handed out like the rest.
    static constexpr std::uint8_t K_PROTOCOL_VERSION = 2;

    /// The receiver is quick, but for what it does within a `Slow`; see `proto::FrameQueue`.
    BusWire(Buffer rx, Buffer tx, Receiver receiver, Rest rest = {});
    ~BusWire();
    BusWire(BusWire const&) = delete;
    BusWire& operator=(BusWire const&) = delete;

    void set_interfaces(proto::interface::IInterface& rx, proto::interface::IInterface& tx);
    /// Sent frames carry `stamp`; received ones outside `stamp` to `accept_high` are dropped.
    /// Before `set_interfaces` only.
    void set_channel(std::uint16_t stamp, std::uint16_t accept_high);
    /// The source of sent frames; received ones that carry it are our own and are dropped.
    void set_source(std::uint32_t address);
    /// The source of sent frames while it is to be found out whether it is this node's alone:
    /// received ones that carry it are heard, those of its own that the transport brings back among
    /// them.
    void set_contested_source(std::uint32_t address);

    /// Sends one frame with the header's fields (not its `data`, nor its `source`) and the payload,
    /// at most `Hub::K_MAX_DATA_FIELD_CHUNK_SIZE` bytes; options stand on the wire only where they
    /// differ from what their absence means. Returns the bytes sent.
    std::size_t send(WireFrame const& header, CustomSpan<unsigned char const> payload);
    /// The frames sent by this thread up to `end_burst` may leave by one call of the system.
    void begin_burst();
    void end_burst();

    /// Returns when no receiver is running and none will.
    void stop();

    /// What the receiver does while this lives may take as long as it likes.
    class Slow {
    public:
        explicit Slow(BusWire const& wire);
        ~Slow();
        Slow(Slow const&) = delete;
        Slow& operator=(Slow const&) = delete;

    private:
        BusWire const& wire_;
    };

private:
    class Endpoint; ///< Keeps the frame's templates out of every file that includes this one.

    std::unique_ptr<Endpoint> endpoint_;
};

} // namespace tessaron::bus
