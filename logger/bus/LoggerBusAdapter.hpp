#pragma once

#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "logger/Logger.hpp"
#include "logger/bus/LoggerBusClient.hpp"
#include "logger/bus/logger_envelopes.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace tessaron {

/// Puts a log on the bus: messages of named sources come in and are written to the one log, and
/// whoever likes may read the log, watch its lines, and change its level.
///
///     log.entry    heard       messages of sources; those for another listener are dropped
///     logger.self  heard       the same, under the name of the log's own source
///     log.line     published   each line above TRACE, once it is written
///     info, read   asked       about the file and for its lines
///     level.get, level.set     the minimum level, until the next start
///
/// The line in the file has two labels: "[<log>] [<LEVEL>] [<time>] [<source>] <message>". The
/// log's own messages take the same way, as the source "logger.self".
///
/// Ownership: the logger and the hub must outlive it. The clients that it makes may outlive it, but
/// not the hub; what they log then goes nowhere.
/// Thread safety: `listen_on_bus` and the destructor on their owner's thread, before and after all
/// others; `make_client` from any thread.
/// Errors: none; a payload that cannot be read costs a warning of the bus, and its sender a
/// time-out.
class LoggerBusAdapter {
public:
    class Listener;

    explicit LoggerBusAdapter(Logger& logger);
    /// Gives the log's own messages back to it and waits for the lines in its queue.
    ~LoggerBusAdapter();
    LoggerBusAdapter(LoggerBusAdapter const&) = delete;
    LoggerBusAdapter& operator=(LoggerBusAdapter const&) = delete;

    /// Once.
    void listen_on_bus(bus::IHub& hub, proto::bus::NodeIdentity const& identity,
                       std::uint32_t address);
    /// The source of that name; as long as somebody has it, it is the same one for all. After
    /// `listen_on_bus`.
    std::shared_ptr<LoggerBusClient> make_client(std::string const& name);

private:
    void serve_introspection();
    LogInfoReply info();
    LogReadReply read(LogReadRequest const& request);
    LogLevelReply set_level(LogLevelRequest const& request);

    Logger& logger_;
    std::shared_ptr<Listener> listener_;
    std::shared_ptr<LoggerBusClient> self_client_;
};

/// The log's own node on the bus.
///
/// Ownership: as the adapter's; event handlers of the bus are waited for by the destructor.
/// Thread safety: safe from any thread; one internal lock, over the making of a client.
class LoggerBusAdapter::Listener {
public:
    static std::shared_ptr<Listener> create(bus::IHub& hub, std::uint32_t address,
                                            proto::bus::NodeIdentity const& identity,
                                            ILogger& logger);
    Listener(Listener const&) = delete;
    Listener& operator=(Listener const&) = delete;

    /// Runs on the log's writer thread.
    void publish_line_event(std::uint64_t line_number, std::string const& line,
                            std::uint64_t generation);
    std::shared_ptr<LoggerBusClient> make_client(std::string const& name)
        TESSARON_EXCLUDES(sources_mutex_);
    bus::LocalClient& client() { return *client_; }

private:
    Listener(bus::IHub& hub, std::uint32_t address, proto::bus::NodeIdentity const& identity,
             ILogger& logger);
    void handle(LoggerEntry const& entry);

    /// A source, while somebody has it, and its address, which it gets again the next time.
    struct Source {
        std::weak_ptr<LoggerBusClient> client;
        std::uint32_t address = 0;
    };

    bus::IHub& hub_;
    ILogger& logger_;
    std::uint32_t const address_;
    std::string const binary_;
    Mutex sources_mutex_;
    std::map<std::string, Source> sources_ TESSARON_GUARDED_BY(sources_mutex_);
    std::shared_ptr<bus::LocalClient> client_; ///< Last: its threads use all of the above.
};

} // namespace tessaron
