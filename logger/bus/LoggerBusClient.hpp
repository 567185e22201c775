#pragma once

#include "bus/IHub.hpp"
#include "bus/LocalClient.hpp"
#include "logger/ILogger.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

namespace tessaron {

/// A named source of log messages: what it logs is published on "log.entry" for a listener, which
/// writes it to its log under the source's name.
///
/// Where source and listener are clients of one hub, the message stands in the log's queue when
/// `log` returns, whether the wire works or not; a crash right behind it loses no more than one
/// behind a call of the log itself. What goes to another process may be lost, as any event may.
///
/// It lets every level pass, since the log has a level of its own, and keeps the last messages of
/// any level in memory.
///
/// Ownership: the hub and the clock must outlive it.
/// Thread safety: safe from any thread, handlers of the bus included; the stream one thread at a
/// time, the caller's duty.
/// Errors: as `ILogger`. A message of more than `K_MAX_MESSAGE` bytes is cut: a larger one would
/// not be sent at all.
class LoggerBusClient final : public ILogger {
public:
    static constexpr std::size_t K_MAX_MESSAGE = 1'000'000;
    static constexpr char const* K_TOPIC = "log.entry";

    static std::shared_ptr<LoggerBusClient> create(bus::IHub& hub, std::uint32_t address,
                                                   proto::bus::NodeIdentity const& identity,
                                                   ITimeProvider const& clock,
                                                   std::uint32_t listener_address);

    /// What is written to it is logged at INFO, line by line, and at a flush.
    std::ostream& get_stream() override { return stream_; }
    void log_impl(LogLevel level, std::string_view time_stamp,
                  std::string_view message) noexcept override;

    std::uint32_t address() const { return client_->address(); }

private:
    /// Collects characters to lines.
    class StreamBuf final : public std::streambuf {
    public:
        explicit StreamBuf(LoggerBusClient& owner) : owner_(owner) {}

    protected:
        int_type overflow(int_type character) override;
        int sync() override;

    private:
        void flush();

        LoggerBusClient& owner_;
        std::string line_;
    };

    LoggerBusClient(std::string name, ITimeProvider const& clock,
                    std::shared_ptr<bus::LocalClient> client, std::uint32_t listener_address);

    std::uint32_t const listener_address_;
    std::shared_ptr<bus::LocalClient> const client_;
    StreamBuf buffer_{*this};
    std::ostream stream_{&buffer_};
};

} // namespace tessaron
