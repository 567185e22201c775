#include "app/AppContext.hpp"

#include "app/app_control_version.hpp"
#include "app/build_info.hpp"
#include "app/instance_lock.hpp"
#include "app/utilities/fs_tools.hpp"
#include "app/utilities/process_identity.hpp"
#include "bus/address_derivation.hpp"
#include "bus/gateway_start.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <tuple>

namespace tessaron {

namespace {

std::uint32_t bus_address(config::ConfigStore<8192> const& config) {
    return static_cast<std::uint32_t>(config.get<long long>("shared_bus_address"));
}

/// Where the services would like to be, behind the address that their node would.
constexpr std::uint32_t K_CONTROL_OFFSET = 11;
constexpr std::uint32_t K_LOGGER_OFFSET = 1000;
constexpr std::uint32_t K_CONFIG_OFFSET = 2000;

} // namespace

AppContext::BusBuffer AppContext::rx_buffer_;
AppContext::BusBuffer AppContext::tx_buffer_;

AppContext::AppContext(config::ConfigStore<8192>& config, int argc, char** argv)
    : app_name_(check_not_already_running_and_get_app_name(config, argc, argv)),
      app_description_(config.get<std::string>("app_description")), config_(config),
      version_(build_version()), app_dir_(config.get<std::string>("app_dir")),
      executable_path_(detail::get_executable_path()), user_name_(detail::get_username()),
      logger_(app_name_, LogLevel::INFO, time_provider_),
      hub_({rx_buffer_.data(), rx_buffer_.size()}, {tx_buffer_.data(), tx_buffer_.size()},
           bus_address(config),
           proto::bus::make_identity(app_name_, app_name_, app_control_protocol_version(), "", "")),
      config_on_bus_{config}, logger_on_bus_(logger_) {
    join_bus();
    serve_on_bus();
    start_logging(argc, argv);
    start_incident_reports();
    maybe_start_bus_gateway();
}

AppContext::~AppContext() {
    logger_.set_incident_trigger_sink({});
    incident_gate_->close();
    leave_bus();
    detail::remove_lock_file_if_test_suffixed(app_name_);
}

void AppContext::leave_bus() {
    multicast_.close();
}

std::string
AppContext::check_not_already_running_and_get_app_name(config::ConfigStore<8192> const& config,
                                                       int argc, char const* const* argv) {
    std::string name = config.get<std::string>("app_name");
    if (detail::argv_requests_wait_or_kill_policy(argc, argv)) {
        detail::resolve_instance_conflict_before_logging_starts(name, argc, argv);
    } else if (auto const holder = detail::peek_existing_instance_holder(name)) {
        throw AlreadyRunningError(name, *holder);
    }
    return name;
}

void AppContext::join_bus() {
    auto const port = static_cast<std::uint16_t>(config_.get<long long>("bus_multicast_port"));
    if (!multicast_.open_multicast(config_.get<std::string>("bus_multicast_group"), port)) {
        throw std::runtime_error("AppContext: failed to open the bus multicast interface");
    }
    // Before the address is claimed, which has most of the warnings.
    // To the log itself, not through the bus.
    hub_.set_warning_sink(
        [this](std::string const& text) { logger_.log(LogLevel::WARNING, text); });
    hub_.set_interfaces(multicast_, multicast_);
}

void AppContext::serve_on_bus() {
    std::uint32_t const wanted = bus_address(config_);
    std::uint64_t const hash = std::hash<std::string>()(app_name_);
    // At once: each alone would take as long.
    auto const addresses = hub_.resolve_local_client_addresses(
        {{bus::derive_service_address(wanted, K_LOGGER_OFFSET), hash, "logger"},
         {bus::derive_service_address(wanted, K_CONFIG_OFFSET), hash, "config"},
         {bus::derive_service_address(wanted, K_CONTROL_OFFSET), hash, "control"}});
    control_address_ = addresses[2];
    logger_on_bus_.listen_on_bus(hub_, proto::bus::make_identity("logger", app_name_, 1, "", ""),
                                 addresses[0]);
    config_.listen_on_bus(hub_, proto::bus::make_identity("config", app_name_, 1, "", ""),
                          addresses[1]);
    log_ = logger_on_bus_.make_client("app");
}

void AppContext::maybe_start_bus_gateway() {
    // The log itself: the gateway's threads may warn for longer than the log is on the bus.
    auto const log_at = [this](LogLevel level) {
        return [this, level](std::string const& text) { logger_.log(level, text); };
    };
    HubGateway::Settings settings;
    settings.warning_sink = log_at(LogLevel::WARNING);
    start_gateway(gateway_, std::getenv(K_GATEWAY_PORT_VARIABLE),
                  {multicast_, bus_address(config_), app_name_, log_at(LogLevel::INFO),
                   log_at(LogLevel::ERROR), std::cerr, settings});
}

void AppContext::start_logging(int argc, char** argv) {
    logger_.set_verbose_console_echo(detail::argv_requests_verbose(argc, argv));
    auto const min_level = static_cast<std::uint8_t>(config_.get<long long>("log_min_level"));
    logger_.set_level(static_cast<LogLevel>(min_level));
    log().log(LogLevel::INFO, "Logger started, writing to console");
    log_config_load_report(config_);
    // Where neither the file nor its fallback can be opened, the log stays on the console.
    std::ignore = logger_.redirect_to_directory(config_.get<std::string>("log_dir"));
}

void AppContext::start_incident_reports() {
    incident_dir_ = fs_tools::join_path(fs_tools::join_path(app_dir_, app_name_), "incidents");
    incidents_.emplace(IncidentReporter::Subject{app_name_, version_, incident_dir_}, logger_, hub_,
                       time_provider_);
    logger_.set_incident_trigger_sink(
        [this, gate = incident_gate_](LogLevel level, std::string const& message) {
            bus::CallGate::Pass const pass(*gate);
            if (pass) {
                maybe_generate_incident_report(level, message);
            }
        });
}

void AppContext::log_config_load_report(config::ConfigStore<8192> const& config) {
    using Status = config::LoadReport::Status;
    config::LoadReport const report = config.last_load_report();
    switch (report.status) {
    case Status::none:
        break;
    case Status::created:
        log().log(LogLevel::INFO, "config: '", report.path, "' not found, created with defaults");
        break;
    case Status::loaded:
        log().log(LogLevel::INFO, "config: loaded '", report.path, "'");
        break;
    case Status::healed:
        log().log(LogLevel::WARNING, "config: '", report.path, "' had ", report.issues.size(),
                  " issue(s), healed:");
        for (config::DecodeIssue const& issue : report.issues) {
            log().log(LogLevel::WARNING, "  - ", issue.field.empty() ? "(file)" : issue.field, ": ",
                      issue.message);
        }
        break;
    }
}

namespace detail {

bool argv_requests_verbose(int argc, char const* const* argv) {
    for (int index = 1; index < argc; ++index) {
        if (std::string_view(argv[index]) == "--verbose") {
            return true;
        }
    }
    return false;
}

} // namespace detail
} // namespace tessaron
