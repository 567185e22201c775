#include "bus/identity_text.hpp"
#include "logger/bus/LoggerBusAdapter.hpp"

#include <functional>
#include <utility>

// The log's node: what it hears goes to the log, on whatever thread delivers it; the log's lines go
// out, on the log's writer thread. Touches the table of sources.

namespace tessaron {

namespace {

constexpr char K_LINE_TOPIC[] = "log.line";
constexpr char K_ENTRIES_TEXT[] =
    "Log entries published by any LoggerBusClient of this logger's ListenOnBus()";

} // namespace

std::shared_ptr<LoggerBusAdapter::Listener>
LoggerBusAdapter::Listener::create(bus::IHub& hub, std::uint32_t address,
                                   proto::bus::NodeIdentity const& identity, ILogger& logger) {
    return std::shared_ptr<Listener>(new Listener(hub, address, identity, logger));
}

LoggerBusAdapter::Listener::Listener(bus::IHub& hub, std::uint32_t address,
                                     proto::bus::NodeIdentity const& identity, ILogger& logger)
    : hub_(hub), logger_(logger), address_(address),
      binary_(bus::identity_field_to_string(identity.binary, proto::bus::K_IDENTITY_TEXT_SIZE)),
      client_(hub.connect(address, identity)) {
    std::function<void(LoggerEntry const&)> const take = [this](LoggerEntry const& entry) {
        handle(entry);
    };
    client_->subscribe<LoggerEntry>("logger.self", take, K_ENTRIES_TEXT);
    client_->subscribe<LoggerEntry>(LoggerBusClient::K_TOPIC, take, K_ENTRIES_TEXT);
    client_->advertise(K_LINE_TOPIC, "Pushed once per line this logger's sink actually writes to "
                                     "its own file, with that line's absolute number");
}

void LoggerBusAdapter::Listener::handle(LoggerEntry const& entry) {
    if (entry.listener_address == address_) {
        logger_.log(entry.severity, "[", entry.source, "] ", entry.message);
    }
}

void LoggerBusAdapter::Listener::publish_line_event(std::uint64_t line_number,
                                                    std::string const& line,
                                                    std::uint64_t generation) {
    client_->publish(K_LINE_TOPIC, LoggerLineEvent{line_number, line, address_, generation});
}

std::shared_ptr<LoggerBusClient> LoggerBusAdapter::Listener::make_client(std::string const& name) {
    MutexLock lock(sources_mutex_);
    Source& source = sources_[name];
    if (auto existing = source.client.lock()) {
        return existing;
    }
    if (source.address == 0) {
        source.address = hub_.pick_local_client_address(address_, name);
    }
    auto client = LoggerBusClient::create(hub_, source.address,
                                          proto::bus::make_identity(name, binary_, 1, "", ""),
                                          logger_.clock(), address_);
    source.client = client;
    return client;
}

} // namespace tessaron
