#pragma once

#include "app/utilities/TraceRing.hpp"
#include "bus/BusTraceRingBuffer.hpp"
#include "logger/LogTraceRingBuffer.hpp"

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

/// What was logged and what passed on the bus, put in one order: shared by incident reports and the
/// crash record. All of it is async-signal-safe, as far as what it calls is.
namespace tessaron {

namespace detail {

/// Walks a ring from its oldest entry to its newest. The ring may be written meanwhile; an entry
/// that is overtaken reads as a newer one.
template <typename Entry>
class TraceCursor {
public:
    /// `count`: the entries ever written.
    TraceCursor(std::span<Entry const> slots, std::uint64_t count) noexcept
        : slots_(slots), next_(count - std::min<std::uint64_t>(count, slots.size())), end_(count) {
        load();
    }

    bool is_at_end() const noexcept { return next_ == end_; }
    /// Not at the end.
    Entry const& entry() const noexcept { return entry_; }
    void advance() noexcept {
        ++next_;
        load();
    }

private:
    void load() noexcept {
        if (!is_at_end()) {
            entry_ = read_trace_slot(slots_[next_ % slots_.size()]);
        }
    }

    std::span<Entry const> const slots_;
    std::uint64_t next_;
    std::uint64_t const end_;
    Entry entry_;
};

} // namespace detail

/// Calls `on_log` and `on_bus` for the entries of both rings by their time, oldest first; of two of
/// the same time the log's comes first. The counts are those of the entries ever written.
template <typename OnLog, typename OnBus>
void merge_log_and_bus_trace(std::span<LogTraceEntry const> log_slots, std::uint64_t log_count,
                             std::span<bus::BusTraceEntry const> bus_slots, std::uint64_t bus_count,
                             OnLog&& on_log, OnBus&& on_bus) {
    detail::TraceCursor<LogTraceEntry> log(log_slots, log_count);
    detail::TraceCursor<bus::BusTraceEntry> bus(bus_slots, bus_count);
    while (!log.is_at_end() || !bus.is_at_end()) {
        bool const take_log =
            bus.is_at_end() || (!log.is_at_end() && log.entry().timestamp <= bus.entry().timestamp);
        if (take_log) {
            on_log(log.entry());
            log.advance();
        } else {
            on_bus(bus.entry());
            bus.advance();
        }
    }
}

/// "[LOG INFO] ts=<us> <text>" and a newline. `Out` is a `SignalSafeWriter`, or writes like one.
template <typename Out>
void write_trace_line(Out& out, LogTraceEntry const& entry) {
    out.text("[LOG ").text(to_string(entry.level)).text("] ts=").number(entry.timestamp).text(" ");
    out.one_line(entry.text).text("\n");
}

/// "[BUS EVENT TX] ts=<us> 200 -> 4294967295 msg_id=5 topic="disk.state" data=[free=12] (22b)" and
/// a newline; an id of 0 and an empty topic are left out.
template <typename Out>
void write_trace_line(Out& out, bus::BusTraceEntry const& entry) {
    bool const was_sent = entry.direction == bus::BusTraceEntry::K_SENT;
    out.text("[BUS ").text(short_name(entry.type)).text(was_sent ? " TX] ts=" : " RX] ts=");
    out.number(entry.timestamp).text(" ").number(entry.source).text(" -> ");
    out.number(entry.destination);
    if (entry.msg_id != 0) {
        out.text(" msg_id=").number(entry.msg_id);
    }
    if (entry.topic[0] != '\0') {
        out.text(" topic=\"").one_line(entry.topic).text("\"");
    }
    out.text(" data=[").one_line(entry.data).text("] (").number(entry.size).text("b)\n");
}

/// Both of the above.
template <typename Out>
void write_merged_trace(Out& out, std::span<LogTraceEntry const> log_slots, std::uint64_t log_count,
                        std::span<bus::BusTraceEntry const> bus_slots, std::uint64_t bus_count) {
    auto const write = [&out](auto const& entry) { write_trace_line(out, entry); };
    merge_log_and_bus_trace(log_slots, log_count, bus_slots, bus_count, write, write);
}

} // namespace tessaron
