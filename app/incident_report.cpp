#include "app/incident_report.hpp"

#include "app/incident_history.hpp"
#include "app/trace_merge.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/line_text.hpp"

#include <array>
#include <cstdlib>
#include <execinfo.h>
#include <fcntl.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace tessaron {
namespace {

using std::chrono::duration_cast;

/// Writes to a string as a `SignalSafeWriter` does to a file.
class StringWriter {
public:
    explicit StringWriter(std::string& out) : out_(out) {}

    StringWriter& text(std::string_view piece) {
        out_ += piece;
        return *this;
    }
    StringWriter& one_line(std::string_view piece) { return text(tessaron::one_line(piece)); }
    StringWriter& number(std::uint64_t value) { return text(std::to_string(value)); }

private:
    std::string& out_;
};

void append_backtrace(std::string& text) {
    std::array<void*, IncidentReporter::K_MAX_FRAMES> frames;
    int const count = ::backtrace(frames.data(), IncidentReporter::K_MAX_FRAMES);
    std::unique_ptr<char*, decltype(&std::free)> const symbols(
        ::backtrace_symbols(frames.data(), count), &std::free);
    if (count <= 0 || symbols == nullptr) {
        text += "(no backtrace captured)\n";
        return;
    }
    for (int i = 0; i < count; ++i) {
        text.append(symbols.get()[i]).append("\n");
    }
}

} // namespace

void append_merged_trace(std::string& text, Logger::LogTraceSnapshot const& log,
                         bus::Hub::BusTraceSnapshot const& bus) {
    StringWriter out(text);
    write_merged_trace(out, log.entries, log.write_index, bus.entries, bus.write_index);
}

IncidentReporter::IncidentReporter(Subject subject, Logger const& logger, bus::Hub const& hub,
                                   ITimeProvider const& clock, SteadyNow now)
    : subject_(std::move(subject)), logger_(logger), hub_(hub), clock_(clock),
      now_(std::move(now)) {
}

void IncidentReporter::set_extra_content_provider(ContentProvider provider) {
    auto shared = provider ? std::make_shared<ContentProvider const>(std::move(provider)) : nullptr;
    MutexLock lock(provider_mutex_);
    provider_.swap(shared);
}

bool IncidentReporter::is_due() {
    SteadyTime const now = now_();
    MutexLock lock(interval_mutex_);
    if (last_report_ && now - *last_report_ < K_MIN_INTERVAL) {
        return false;
    }
    last_report_ = now;
    return true;
}

void IncidentReporter::maybe_report(LogLevel level, std::string_view message) noexcept {
    if (is_due()) {
        write_report(level, message);
    }
}

void IncidentReporter::write_report(LogLevel level, std::string_view message) noexcept {
    try {
        fs_tools::make_dir_once(subject_.directory, 0755);
        auto const time = clock_.now().time_since_epoch();
        std::string const text = report(level, message, time);
        auto const name = duration_cast<std::chrono::milliseconds>(time).count();
        if (write_file(
                fs_tools::join_path(subject_.directory, std::string(K_INCIDENT_FILE_PREFIX) +
                                                            std::to_string(name) +
                                                            std::string(K_INCIDENT_FILE_SUFFIX)),
                text, O_TRUNC)) {
            prune();
        }
    } catch (...) {
        // No memory, or a provider that throws. Whoever logged the error goes on.
    }
}

std::string IncidentReporter::report(LogLevel level, std::string_view message,
                                     std::chrono::system_clock::duration time) {
    std::string text =
        "=== incident report ===\napp: " + subject_.app_name + " " + subject_.version + "\n";
    text.append(K_INCIDENT_PID_LINE).append(std::to_string(::getpid())).append("\n");
    text.append(K_INCIDENT_TIME_LINE)
        .append(std::to_string(duration_cast<std::chrono::seconds>(time).count()))
        .append("\n");
    text.append(K_INCIDENT_TRIGGER_LINE).append(to_string(level)).append("] ");
    text.append(one_line(message)).append("\n\nBacktrace:\n");
    append_backtrace(text);
    text += "\n=== recent activity (logs + bus traffic, merged by time, regardless of active log "
            "level) ===\n";
    append_merged_trace(text, logger_.log_trace_snapshot(), hub_.bus_trace_snapshot());
    append_runtime_state(text);
    return text;
}

void IncidentReporter::append_runtime_state(std::string& text) {
    std::shared_ptr<ContentProvider const> provider;
    {
        MutexLock lock(provider_mutex_);
        provider = provider_;
    }
    std::string const state = provider ? (*provider)() : std::string();
    if (!state.empty()) {
        text.append("\n=== runtime state ===\n").append(state).append("\n");
    }
}

void IncidentReporter::prune() const {
    auto const paths = list_incident_reports(subject_.directory);
    for (std::size_t i = 0; i + K_KEPT_REPORTS < paths.size(); ++i) {
        ::unlink(paths[i].c_str());
    }
}

} // namespace tessaron
