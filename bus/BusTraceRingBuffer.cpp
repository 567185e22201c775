#include "bus/BusTraceRingBuffer.hpp"

#include "bus/payload_text.hpp"

#include <algorithm>
#include <ctime>
#include <limits>
#include <sstream>

namespace tessaron::bus {
namespace detail {

std::size_t fill_bus_trace_entry(BusTraceEntry& entry, TracedMessage const& message,
                                 proto::bus::Bytes const& payload,
                                 std::string_view topic) noexcept {
    constexpr std::size_t K_MAX_SIZE = std::numeric_limits<decltype(entry.size)>::max();
    entry.timestamp = message.timestamp;
    entry.source = message.source;
    entry.destination = message.destination;
    entry.msg_id = message.msg_id;
    entry.size = static_cast<std::uint16_t>(std::min(payload.size(), K_MAX_SIZE));
    entry.type = message.type;
    entry.direction = message.direction;
    // A peer names its topics as it likes: it must not end the line.
    std::size_t const length =
        tessaron::detail::copy_truncated(entry.topic, BusTraceEntry::K_TOPIC_SIZE, topic);
    replace_unprintable(entry.topic, length);
    PayloadTextRoom room;
    return offsetof(BusTraceEntry, data) + 1 +
           tessaron::detail::copy_truncated(entry.data, BusTraceEntry::K_DATA_SIZE,
                                            format_bus_trace_data(payload, room));
}

} // namespace detail

std::string format_bus_trace_entry(BusTraceEntry const& entry) {
    constexpr std::uint64_t K_MICROSECONDS = 1'000'000;
    auto const seconds = static_cast<std::time_t>(entry.timestamp / K_MICROSECONDS);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char time[32] = "";
    std::strftime(time, sizeof time, "%Y-%m-%dT%H:%M:%S", &utc);
    std::ostringstream text;
    text << time << "Z ";
    if (entry.direction == BusTraceEntry::K_SENT) {
        text << "TX";
    } else {
        text << (entry.direction == BusTraceEntry::K_RECEIVED ? "RX" : "?");
    }
    text << ' ' << entry.type << ' ' << entry.source << " -> " << entry.destination
         << " msg_id=" << entry.msg_id << " topic=\"" << entry.topic << "\" data=[" << entry.data
         << "] (" << entry.size << "b)";
    return text.str();
}

} // namespace tessaron::bus
