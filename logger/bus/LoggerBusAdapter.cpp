#include "logger/bus/LoggerBusAdapter.hpp"

#include "bus/record_fields.hpp"

#include <utility>
#include <vector>

// How the log joins the bus and leaves it, on its owner's thread, and what it answers, on the
// listener's request worker.

namespace tessaron {

namespace {

/// What does not fit can be asked for from where the reply ends; a line that never would is cut.
void cut_to_fit(std::vector<std::string>& lines) {
    std::size_t const count = bus::count_that_fit(
        lines.begin(), lines.end(), [](std::string const& line) { return line.size(); });
    if (count == 0 && !lines.empty()) {
        lines.resize(1);
        lines.front().resize(bus::K_MAX_RECORD_DATA);
    } else {
        lines.resize(count);
    }
}

} // namespace

LoggerBusAdapter::LoggerBusAdapter(Logger& logger) : logger_(logger) {
}

LoggerBusAdapter::~LoggerBusAdapter() {
    logger_.register_line_sink({});
    logger_.register_self_log_sink(nullptr);
    // The writer may be using both still.
    logger_.flush();
}

void LoggerBusAdapter::listen_on_bus(bus::IHub& hub, proto::bus::NodeIdentity const& identity,
                                     std::uint32_t address) {
    listener_ = Listener::create(hub, address, identity, logger_);
    self_client_ = make_client("logger.self");
    logger_.register_line_sink([listener = listener_](std::uint64_t number, std::string const& line,
                                                      std::uint64_t generation) {
        listener->publish_line_event(number, line, generation);
    });
    logger_.register_self_log_sink(self_client_.get());
    serve_introspection();
}

std::shared_ptr<LoggerBusClient> LoggerBusAdapter::make_client(std::string const& name) {
    return listener_->make_client(name);
}

void LoggerBusAdapter::serve_introspection() {
    bus::LocalClient& client = listener_->client();
    client.serve(
        "info", [this](Bytes const&) { return info().build(); },
        "Returns this app's diagnostic log file's own path/line count/size/current minimum "
        "severity (see Stats()/GetLevel()) - empty path means no log file (never redirected, or "
        "redirection failed - logging only went to console)");
    client.serve_record<LogReadRequest, LogReadReply>(
        "read", [this](LogReadRequest const& request) { return read(request); },
        "Returns log lines [from_line, to_line] (1-based, inclusive) from this app's diagnostic "
        "log file (optionally from an older rotated-out generation - see "
        "LogReadRequest::generation), plus its total line count (see ReadLines())");
    client.serve_property(
        "level",
        [this] {
            return LogLevelReply{true, "", logger_.get_level()}.build();
        },
        "This app's live minimum log severity (0=TRACE/1=INFO/2=WARNING/3=ERROR) - see "
        "Stats()/GetLevel() - the same value \"info\" bundles as its own min_level field",
        [this](Bytes const& request) { return set_level(LogLevelRequest::parse(request)).build(); },
        "Sets this app's live minimum log severity (0=TRACE/1=INFO/2=WARNING/3=ERROR) - takes "
        "effect immediately (see set_level()), unlike editing a persisted \"log_min_level\" config "
        "field alone",
        {{"level", "level (0=TRACE/1=INFO/2=WARNING/3=ERROR)", false}});
}

LogInfoReply LoggerBusAdapter::info() {
    LogStats stats = logger_.stats();
    LogInfoReply reply;
    reply.path = std::move(stats.path);
    reply.line_count = stats.line_count;
    reply.file_size_bytes = stats.file_size_bytes;
    reply.min_level = logger_.get_level();
    reply.generation = stats.generation;
    return reply;
}

LogReadReply LoggerBusAdapter::read(LogReadRequest const& request) {
    LogReadReply reply;
    reply.generation = request.generation ? *request.generation : logger_.stats().generation;
    LogRange range = logger_.read_lines(reply.generation, request.from_line, request.to_line);
    reply.available = range.available;
    reply.total_lines = range.total_lines;
    reply.from_line = range.first_line;
    reply.lines = std::move(range.lines);
    cut_to_fit(reply.lines);
    return reply;
}

LogLevelReply LoggerBusAdapter::set_level(LogLevelRequest const& request) {
    auto const level = log_level_of(request.level);
    if (!level) {
        return {false, "not a level (0 to 3): " + request.level, std::nullopt};
    }
    logger_.set_level(*level);
    return {};
}

} // namespace tessaron
