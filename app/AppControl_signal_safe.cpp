// The writers of the crash path. What they may call: write, time, getpid, the backtrace of
// backtrace_signal_safe.hpp, and reads of the rings. No allocation, no lock, no stream.

#include "app/AppControl.hpp"
#include "app/backtrace_signal_safe.hpp"
#include "app/build_info.hpp"
#include "app/signal_safe_text.hpp"
#include "app/trace_merge.hpp"

#include <ctime>
#include <unistd.h>

namespace tessaron {

namespace {

using detail::SignalSafeWriter;

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
    Logger const& logger = context_.logger();
    write_merged_trace(out, {logger.log_trace_raw_entries(), Logger::K_TRACE_SIZE},
                       logger.log_trace_raw_write_index(),
                       {context_.bus_trace_raw_entries(), bus::Hub::K_TRACE_SIZE},
                       context_.bus_trace_raw_write_index());
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
