#pragma once

#include "app/utilities/TraceRing.hpp"
#include "proto/bus/Bytes.hpp"
#include "proto/bus/MessageType.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tessaron::bus {

/// One message that was sent or received. Plain, so that a crash handler may read it; its texts are
/// always NUL-terminated and printable.
struct BusTraceEntry {
    static constexpr std::size_t K_TOPIC_SIZE = 32;
    static constexpr std::size_t K_DATA_SIZE = 144;
    static constexpr char K_SENT = 'T';
    static constexpr char K_RECEIVED = 'R';

    std::uint64_t timestamp = 0; ///< microseconds since the Unix epoch
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint32_t msg_id = 0;
    std::uint16_t size = 0; ///< of the payload; 65535 also for a larger one
    proto::bus::MessageType type{};
    char direction = 0; ///< `K_SENT` or `K_RECEIVED`
    char topic[K_TOPIC_SIZE] = {};
    char data[K_DATA_SIZE] = {}; ///< what `format_bus_trace_data` makes of the payload
};

/// "2024-01-31T12:34:56Z TX EVENT(0x30) 200 -> 4294967295 msg_id=5 topic="disk.state"
/// data=[free=12] (31b)", in UTC; the direction is "?" when it is neither.
std::string format_bus_trace_entry(BusTraceEntry const& entry);

namespace detail {

/// What passed; the texts are cut to fit.
struct TracedMessage {
    std::uint64_t timestamp = 0;
    char direction = BusTraceEntry::K_SENT;
    proto::bus::MessageType type{};
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint32_t msg_id = 0;
};

/// Fills an entry that is as constructed; returns how many of its bytes are of use.
std::size_t fill_bus_trace_entry(BusTraceEntry& entry, TracedMessage const& message,
                                 proto::bus::Bytes const& payload, std::string_view topic) noexcept;

} // namespace detail

template <std::size_t N>
using BusTraceSnapshotOf = TraceSnapshot<BusTraceEntry, N>;

/// The last `N` messages of a node, for crash and incident reports. Sending and receiving threads
/// record at the same time, with no lock; a message costs a fraction of a microsecond.
///
/// Thread safety, errors: as `TraceRing`.
template <std::size_t N>
class BusTraceRingBuffer : public TraceRing<BusTraceEntry, N> {
public:
    void record(detail::TracedMessage const& message, proto::bus::Bytes const& payload,
                std::string_view topic) noexcept {
        BusTraceEntry entry;
        this->put(entry, detail::fill_bus_trace_entry(entry, message, payload, topic));
    }
};

} // namespace tessaron::bus
