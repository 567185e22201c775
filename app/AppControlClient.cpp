#include "app/AppControlClient.hpp"

#include "bus/network_map_join.hpp"

#include <utility>
#include <vector>

namespace tessaron {

namespace {

constexpr char K_SERVICE[] = "tessaron_app_control";
constexpr char K_CLIENT[] = "app_control_client";

} // namespace

std::shared_ptr<AppControlClient> AppControlClient::create(bus::IHub& hub, std::uint32_t address,
                                                           AppControlClientParams const& params) {
    auto client =
        hub.connect(address, proto::bus::make_identity(params.name, K_SERVICE, 1, K_CLIENT, ""));
    return std::shared_ptr<AppControlClient>(new AppControlClient(std::move(client), params));
}

AppControlClient::AppControlClient(std::shared_ptr<bus::LocalClient> client,
                                   AppControlClientParams const& params)
    : control_(params.control), config_(params.config), logger_(params.logger),
      client_(std::move(client)) {
}

void AppControlClient::set_targets(std::uint32_t control, std::uint32_t config,
                                   std::uint32_t logger) {
    control_ = control;
    config_ = config;
    logger_ = logger;
}

template <typename Reply, typename Request>
std::optional<Reply> AppControlClient::request_typed(std::uint32_t target, char const* topic,
                                                     Request const& request, Milliseconds timeout) {
    auto reply = client_->call<Reply>(target, topic, request, timeout);
    return reply && reply->ok ? std::move(reply) : std::nullopt;
}

std::optional<SessionHistoryReply> AppControlClient::session_history(std::uint64_t max_records,
                                                                     Milliseconds timeout) {
    return request_typed<SessionHistoryReply>(control_, "session_history",
                                              SessionHistoryRequest{max_records}, timeout);
}

std::optional<CrashHistoryReply> AppControlClient::crash_history(std::uint64_t max_records,
                                                                 std::uint64_t skip_from_end,
                                                                 Milliseconds timeout) {
    return request_typed<CrashHistoryReply>(
        control_, "crash_history", CrashHistoryRequest{max_records, skip_from_end}, timeout);
}

std::optional<CrashIncidentReply>
AppControlClient::crash_incident(std::int64_t pid, std::int64_t ts, Milliseconds timeout) {
    return request_typed<CrashIncidentReply>(control_, "crash_incident",
                                             CrashIncidentRequest{pid, ts}, timeout);
}

std::optional<LogInfoReply> AppControlClient::log_info(Milliseconds timeout) {
    return request_typed<LogInfoReply>(logger_, "info", LogInfoRequest(), timeout);
}

std::optional<LogReadReply> AppControlClient::log_read(std::uint64_t from_line,
                                                       std::uint64_t to_line, Milliseconds timeout,
                                                       std::optional<std::uint64_t> generation) {
    return client_->call<LogReadReply>(logger_, "read",
                                       LogReadRequest{from_line, to_line, generation}, timeout);
}

std::optional<config::ConfigListReply> AppControlClient::config_list(Milliseconds timeout) {
    return request_typed<config::ConfigListReply>(config_, "list", config::ConfigListRequest(),
                                                  timeout);
}

std::optional<config::ConfigSetReply> AppControlClient::config_set(std::string const& name,
                                                                   std::string const& value,
                                                                   Milliseconds timeout) {
    return client_->call<config::ConfigSetReply>(config_, "set",
                                                 config::ConfigSetRequest{name, value}, timeout);
}

std::optional<proto::bus::NetworkDomain> AppControlClient::discover_network(std::uint16_t max_depth,
                                                                            Milliseconds timeout) {
    std::vector<proto::bus::NetworkDomain> maps;
    for (auto const& [source, reply] :
         client_->call(bus::LocalClient::K_EVERYBODY, "bus.discover_network",
                       proto::bus::DiscoverNetworkRequest{max_depth, {}}.build(), timeout)) {
        if (auto map = proto::bus::decode_network_domain(reply)) {
            maps.push_back(std::move(*map));
        }
    }
    return maps.empty() ? std::nullopt : std::optional(bus::network_map_join(std::move(maps)));
}

} // namespace tessaron
