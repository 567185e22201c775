#pragma once

#include "app/app_control_envelopes.hpp"
#include "app/config_envelopes.hpp"
#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"
#include "logger/bus/logger_envelopes.hpp"
#include "proto/bus/network_map.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tessaron {

/// Who the client is, and whom it asks at first.
struct AppControlClientParams {
    static constexpr std::uint32_t K_NOBODY = 0xFFFFFFFF;

    std::string name = "app_control_client"; ///< Of its node.
    std::uint32_t control = K_NOBODY;
    std::uint32_t config = K_NOBODY;
    std::uint32_t logger = K_NOBODY;
};

/// Asks an application on the bus about itself: the other end of what `AppControl`, `ConfigStore`
/// and `LoggerBusAdapter` serve.
///
/// An empty answer means that none came in time, or one that cannot be read or says "error"; of
/// `log_read` and `config_set` the caller gets what was said, "error" included. While a target is
/// nobody's address, whoever answers first is asked.
///
/// Ownership: a node of its own; the hub must outlive it.
/// Thread safety: safe from any thread, but not from handlers of the bus; between `set_targets` and
/// the call nobody else may set others, the caller's duty.
/// Errors: none.
class AppControlClient {
public:
    using Milliseconds = std::chrono::milliseconds;

    static std::shared_ptr<AppControlClient> create(bus::IHub& hub, std::uint32_t address,
                                                    AppControlClientParams const& params = {});
    AppControlClient(AppControlClient const&) = delete;
    AppControlClient& operator=(AppControlClient const&) = delete;

    void set_targets(std::uint32_t control, std::uint32_t config, std::uint32_t logger);

    std::optional<SessionHistoryReply> session_history(std::uint64_t max_records,
                                                       Milliseconds timeout);
    std::optional<CrashHistoryReply>
    crash_history(std::uint64_t max_records, std::uint64_t skip_from_end, Milliseconds timeout);
    std::optional<CrashIncidentReply> crash_incident(std::int64_t pid, std::int64_t ts,
                                                     Milliseconds timeout);
    std::optional<LogInfoReply> log_info(Milliseconds timeout);
    /// Both included; 0 means the first and the last line of the file, which is the current one
    /// without a generation.
    std::optional<LogReadReply> log_read(std::uint64_t from_line, std::uint64_t to_line,
                                         Milliseconds timeout,
                                         std::optional<std::uint64_t> generation = std::nullopt);
    std::optional<config::ConfigListReply> config_list(Milliseconds timeout);
    std::optional<config::ConfigSetReply>
    config_set(std::string const& name, std::string const& value, Milliseconds timeout);
    /// Asks everybody on the bus for the map of the network that each has, for the whole of the
    /// time, and joins the answers. Nothing if nobody answers.
    std::optional<proto::bus::NetworkDomain> discover_network(std::uint16_t max_depth,
                                                              Milliseconds timeout);
    /// For a stop: questions under way end at once, as if nobody had answered, and so do further
    /// ones.
    void request_stop() { client_->stop_waiting(); }

    std::uint32_t address() const { return client_->address(); }

private:
    AppControlClient(std::shared_ptr<bus::LocalClient> client,
                     AppControlClientParams const& params);

    /// Nothing where the reply says "error".
    template <typename Reply, typename Request>
    std::optional<Reply> request_typed(std::uint32_t target, char const* topic,
                                       Request const& request, Milliseconds timeout);

    std::atomic<std::uint32_t> control_;
    std::atomic<std::uint32_t> config_;
    std::atomic<std::uint32_t> logger_;
    std::shared_ptr<bus::LocalClient> const client_;
};

} // namespace tessaron
