#pragma once

#include "bus/HubGateway.hpp"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

namespace tessaron {

inline constexpr char K_GATEWAY_PORT_VARIABLE[] = "CONSOLE_APP_GATEWAY_TCP_PORT";

/// A decimal number and nothing else, from 0 to 65535. Throws `std::invalid_argument` or
/// `std::out_of_range`.
std::uint16_t parse_gateway_port(std::string const& text);

/// What an application's gateway is made of, and where it is told of.
struct GatewayPlan {
    using Log = std::function<void(std::string const& text)>;

    proto::interface::IInterface& multicast;
    std::uint32_t shared_bus_address = 0;
    std::string app_name;
    Log log_info;
    Log log_error;
    std::ostream& error_stream; ///< For the same as `log_error`.
    HubGateway::Settings settings;
};

/// Fills `gateway` when `port` names one; `port` is the value of `K_GATEWAY_PORT_VARIABLE`, null
/// when it is not set. Whatever goes wrong is told, and leaves `gateway` empty.
void start_gateway(std::optional<HubGateway>& gateway, char const* port, GatewayPlan const& plan);

} // namespace tessaron
