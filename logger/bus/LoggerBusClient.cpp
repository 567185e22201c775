#include "logger/bus/LoggerBusClient.hpp"

#include "bus/identity_text.hpp"
#include "logger/bus/logger_envelopes.hpp"

#include <utility>

namespace tessaron {

std::shared_ptr<LoggerBusClient> LoggerBusClient::create(bus::IHub& hub, std::uint32_t address,
                                                         proto::bus::NodeIdentity const& identity,
                                                         ITimeProvider const& clock,
                                                         std::uint32_t listener_address) {
    std::string name =
        bus::identity_field_to_string(identity.name, proto::bus::K_IDENTITY_TEXT_SIZE);
    auto client = hub.connect(address, identity);
    client->advertise(K_TOPIC, "Log entries published by this client");
    return std::shared_ptr<LoggerBusClient>(
        new LoggerBusClient(std::move(name), clock, std::move(client), listener_address));
}

LoggerBusClient::LoggerBusClient(std::string name, ITimeProvider const& clock,
                                 std::shared_ptr<bus::LocalClient> client,
                                 std::uint32_t listener_address)
    : ILogger(std::move(name), LogLevel::TRACE, clock), listener_address_(listener_address),
      client_(std::move(client)) {
}

void LoggerBusClient::log_impl(LogLevel level, std::string_view time_stamp,
                               std::string_view message) noexcept {
    LoggerEntry entry;
    entry.severity = level;
    entry.source = get_label();
    entry.message = message.substr(0, K_MAX_MESSAGE);
    if (message.size() > K_MAX_MESSAGE) {
        entry.message += "...";
    }
    entry.timestamp = time_stamp;
    entry.listener_address = listener_address_;
    client_->publish(K_TOPIC, entry);
}

LoggerBusClient::StreamBuf::int_type LoggerBusClient::StreamBuf::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof())) {
        return traits_type::not_eof(character);
    }
    char const c = traits_type::to_char_type(character);
    if (c == '\n') {
        flush();
    } else {
        line_ += c;
    }
    return character;
}

int LoggerBusClient::StreamBuf::sync() {
    flush();
    return 0;
}

void LoggerBusClient::StreamBuf::flush() {
    if (!line_.empty()) {
        owner_.log(LogLevel::INFO, line_);
        line_.clear();
    }
}

} // namespace tessaron
