#include "bus/gateway_start.hpp"

#include <exception>
#include <limits>
#include <ostream>
#include <stdexcept>

namespace tessaron {

std::uint16_t parse_gateway_port(std::string const& text) {
    std::size_t used = 0;
    int const port = std::stoi(text, &used);
    if (used != text.size()) {
        throw std::invalid_argument("stoi");
    }
    if (port < 0 || port > std::numeric_limits<std::uint16_t>::max()) {
        throw std::out_of_range("stoi");
    }
    return static_cast<std::uint16_t>(port);
}

void start_gateway(std::optional<HubGateway>& gateway, char const* port, GatewayPlan const& plan) {
    std::string const variable = K_GATEWAY_PORT_VARIABLE;
    if (port == nullptr) {
        plan.log_info("bus gateway: " + variable + " not set - no TCP gateway started");
        return;
    }
    try {
        HubGateway::Settings settings = plan.settings;
        settings.program = plan.app_name;
        gateway.emplace(plan.multicast, HubGateway::K_LOCAL_DOMAIN,
                        plan.shared_bus_address + HubGateway::K_LOCAL_ADDRESS_OFFSET,
                        parse_gateway_port(port), HubGateway::K_REMOTE_DOMAIN,
                        plan.app_name + "-gateway", settings);
        plan.log_info("bus gateway: listening on TCP port " + std::to_string(gateway->tcp_port()));
    } catch (std::exception const& error) {
        std::string const text =
            "bus gateway: " + variable + "=" + port + " was set but the gateway failed to start (" +
            error.what() +
            ") - continuing without it; if the port is already in use, on macOS check AirPlay "
            "Receiver (System Settings > General > AirDrop & Handoff), which squats on 5000/7000 "
            "by default, then free it or pick a different port.";
        plan.error_stream << text << std::endl;
        plan.log_error(text);
    }
}

} // namespace tessaron
