// The writers of the crash path. What they may call: write, time, getpid, the backtrace of
// backtrace_signal_safe.hpp, and reads of the log's ring. No allocation, no lock, no stream.

#include "app/AppControl.hpp"
#include "app/backtrace_signal_safe.hpp"
#include "app/build_info.hpp"
#include "app/signal_safe_text.hpp"

#include <algorithm>
#include <ctime>
#include <unistd.h>

namespace tessaron {

namespace {

using detail::SignalSafeWriter;

void write_log_trace_entry_signal_safe(SignalSafeWriter& out, LogTraceEntry const& entry) noexcept {
    out.text("[LOG ").text(to_string(entry.level)).text("] ts=").number(entry.timestamp).text(" ");
    out.one_line(entry.text).text("\n");
}

std::uint64_t own_pid() noexcept {
    return static_cast<std::uint64_t>(::getpid());
}

} // namespace

void AppControl::write_crash_record_signal_safe(int signum, siginfo_t const* info,
                                                std::int64_t seconds,
                                                std::int64_t milliseconds) noexcept {
    if (!crash_log_.is_open()) {
        return;
    }
    {
        SignalSafeWriter out(crash_log_.get());
        out.text(K_CRASH_HEADER).text(" signum=").number(static_cast<std::uint64_t>(signum));
        out.text(" pid=").number(own_pid());
        out.text(" ts=").number(static_cast<std::uint64_t>(seconds));
        out.text(" ts_ms=").number(static_cast<std::uint64_t>(milliseconds));
        if (info != nullptr) {
            out.text(" addr=0x").hex(reinterpret_cast<std::uintptr_t>(info->si_addr));
        }
        out.text(build_stamp().crash_header_text);
    }
    detail::write_literal_no_spaces_signal_safe(crash_log_.get(), build_stamp().compiler);
    detail::write_literal_signal_safe(crash_log_.get(), "\n");
    detail::write_backtrace_signal_safe(crash_log_.get());
}

void AppControl::write_crash_detail_signal_safe(std::string_view text) noexcept {
    if (crash_log_.is_open()) {
        SignalSafeWriter(crash_log_.get()).text(K_CRASH_DETAIL_PREFIX).one_line(text).text("\n");
    }
}

void AppControl::write_crash_trace_signal_safe() noexcept {
    if (!crash_log_.is_open()) {
        return;
    }
    SignalSafeWriter out(crash_log_.get());
    out.text(K_CRASH_TRACE_HEADER).text("\n");
    LogTraceEntry const* const entries = context_.logger().log_trace_raw_entries();
    std::uint64_t const end = context_.logger().log_trace_raw_write_index();
    std::uint64_t const begin = end - std::min<std::uint64_t>(end, Logger::K_TRACE_SIZE);
    for (std::uint64_t index = begin; index != end; ++index) {
        write_log_trace_entry_signal_safe(out,
                                          detail::read_slot(entries[index % Logger::K_TRACE_SIZE]));
    }
}

void AppControl::record_session_end_signal_safe(char const* signal_name, char const* runtime,
                                                std::size_t runtime_length) noexcept {
    if (!session_log_.is_open()) {
        return;
    }
    std::int64_t const now = ::time(nullptr);
    SignalSafeWriter out(session_log_.get());
    out.text("event=stop ts=")
        .number(static_cast<std::uint64_t>(now))
        .text(" pid=")
        .number(own_pid());
    out.text(" duration_s=").number(static_cast<std::uint64_t>(seconds_since_session_start(now)));
    // The log's own counters cannot be asked here.
    out.text(" log_line=0 generation=0 runtime=").one_line({runtime, runtime_length});
    out.text(crash_test_.armed() ? " reason=crash: manual test - signal "
                                 : " reason=crash: signal ");
    out.text(signal_name).text("\n");
}

} // namespace tessaron
