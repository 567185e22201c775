#pragma once

#include "app/ConfigStore.hpp"
#include "app/incident_report.hpp"
#include "bus/CallGate.hpp"
#include "bus/Hub.hpp"
#include "bus/HubGateway.hpp"
#include "libraries/interfaces/multicast/MulticastUdpInterface.hpp"
#include "logger/Logger.hpp"
#include "logger/SystemTimeProvider.hpp"
#include "logger/bus/LoggerBusAdapter.hpp"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tessaron {

/// The process-wide context: who this application is, its configuration and its logger. Everything
/// receives it by reference.
///
/// Construction turns a second instance away, or clears the way for it as the command line asks,
/// before anything else is touched. Then it joins the bus, which takes as long as the claims of
/// addresses do, puts log and configuration on it, starts the logger on the console, reports how
/// the configuration was loaded and moves the log to its file; lines logged before that reach the
/// file too. From then on an error that is logged leaves a report. Last it opens the gateway to the
/// bus, if the environment asks for one.
///
/// Ownership: the configuration store must outlive the context; what serves on the bus must not.
/// Thread safety: immutable after construction; the store, the node and the logger lock for
/// themselves.
/// Errors: `AlreadyRunningError`, or another standard exception, from the constructor ends the
/// start of the process.
class AppContext {
public:
    AppContext(config::ConfigStore<8192>& config, int argc, char** argv);
    ~AppContext();
    AppContext(AppContext const&) = delete;
    AppContext& operator=(AppContext const&) = delete;

    std::string const& app_name() const { return app_name_; }
    std::string const& app_description() const { return app_description_; }
    config::ConfigStore<8192>& config() { return config_; }
    std::string const& version() const { return version_; }
    /// The value of the setting `app_dir`, below which all operational data lie.
    std::string const& app_dir() const { return app_dir_; }
    /// Where incident reports go; below `app_dir` and the application's name.
    std::string const& incident_dir() const { return incident_dir_; }
    std::string const& executable_path() const { return executable_path_; }
    std::string const& user_name() const { return user_name_; }
    /// This process's one node on the bus.
    bus::Hub& hub() { return hub_; }
    /// Nobody on the bus hears this process any more, nor does it hear anybody; what its own
    /// services say to each other still arrives. For its end, on the main thread.
    void leave_bus();
    /// An address of this process's own for the application's control node.
    std::uint32_t control_address() const { return control_address_; }
    /// The process's one log. Its own messages have no source; code that may run while the context
    /// is being destroyed, as that of the bus does, logs here.
    Logger& logger() { return logger_; }
    /// What the application's own code logs through: the source "app".
    ILogger& log() { return *log_; }
    /// A further source; the same one for the same name.
    std::shared_ptr<LoggerBusClient> make_log_client(std::string const& name) {
        return logger_on_bus_.make_client(name);
    }

    // Incident reports: what an error leaves. See incident_report.hpp, also for what a provider
    // must not do.

    static constexpr std::chrono::seconds K_INCIDENT_MIN_INTERVAL =
        IncidentReporter::K_MIN_INTERVAL;
    /// Called for every ERROR, on the thread that logs it.
    void maybe_generate_incident_report(LogLevel level, std::string const& message) noexcept {
        incidents_->maybe_report(level, message);
    }
    void write_incident_report(LogLevel level, std::string const& message) noexcept {
        incidents_->write_report(level, message);
    }
    void prune_old_incident_reports() { incidents_->prune(); }
    /// An empty callable removes it; the former one may be running still.
    void set_extra_incident_content_provider(std::function<std::string()> provider) {
        incidents_->set_extra_content_provider(std::move(provider));
    }
    bus::Hub::BusTraceSnapshot bus_trace_snapshot() const noexcept {
        return hub_.bus_trace_snapshot();
    }
    /// `Hub::K_TRACE_SIZE` entries. Async-signal-safe, as is the write index.
    bus::BusTraceEntry const* bus_trace_raw_entries() const noexcept {
        return hub_.bus_trace_raw_entries();
    }
    std::uint64_t bus_trace_raw_write_index() const noexcept {
        return hub_.bus_trace_raw_write_index();
    }

private:
    /// Takes the store, which outlives the bus, off it in time.
    struct ConfigOnBus {
        config::ConfigStore<8192>& store;
        ~ConfigOnBus() { store.leave_bus(); }
    };

    static std::string
    check_not_already_running_and_get_app_name(config::ConfigStore<8192> const& config, int argc,
                                               char const* const* argv);
    void join_bus();
    void serve_on_bus();
    void start_logging(int argc, char** argv);
    void start_incident_reports();
    void maybe_start_bus_gateway();
    void log_config_load_report(config::ConfigStore<8192> const& config);

    std::string app_name_;
    std::string app_description_;
    config::ConfigStore<8192>& config_;
    std::string version_;
    std::string app_dir_;
    std::string incident_dir_;
    std::string executable_path_;
    std::string user_name_;
    SystemTimeProvider time_provider_;
    Logger logger_; ///< Before the bus, whose warnings go to it as long as it has threads.
    proto::interface::MulticastUdpInterface multicast_;
    bus::Hub hub_;
    std::optional<IncidentReporter> incidents_;
    /// Who reports an error may be on its way when the context ends.
    std::shared_ptr<bus::CallGate> const incident_gate_ = std::make_shared<bus::CallGate>();
    std::optional<HubGateway> gateway_;
    std::uint32_t control_address_ = 0;
    ConfigOnBus config_on_bus_;
    LoggerBusAdapter logger_on_bus_;
    std::shared_ptr<LoggerBusClient> log_;

    using BusBuffer = std::array<unsigned char, 8192>;
    static BusBuffer rx_buffer_;
    static BusBuffer tx_buffer_;
};

namespace detail {

/// True if "--verbose" stands anywhere behind the program's name. The echo must be known before
/// the command line is parsed, hence the scan by hand.
bool argv_requests_verbose(int argc, char const* const* argv);

} // namespace detail
} // namespace tessaron
