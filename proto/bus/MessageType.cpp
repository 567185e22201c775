#include "proto/bus/MessageType.hpp"

#include <cstdio>
#include <ostream>

namespace proto::bus {

std::string_view short_name(MessageType type) noexcept {
    switch (type) {
    case MessageType::SUBSCRIBE_REQUEST:
        return "SUBSCRIBE_REQUEST";
    case MessageType::SUBSCRIBE_RESPONSE:
        return "SUBSCRIBE_RESPONSE";
    case MessageType::UNSUBSCRIBE_REQUEST:
        return "UNSUBSCRIBE_REQUEST";
    case MessageType::DISCOVERY_REQUEST:
        return "DISCOVERY_REQUEST";
    case MessageType::DISCOVERY_RESPONSE:
        return "DISCOVERY_RESPONSE";
    case MessageType::EVENT:
        return "EVENT";
    case MessageType::REQUEST:
        return "REQUEST";
    case MessageType::RESPONSE:
        return "RESPONSE";
    }
    return "UNKNOWN";
}

std::ostream& operator<<(std::ostream& stream, MessageType type) {
    // The stream's own base and width stay out of it.
    char value[sizeof "(0x00)"];
    std::snprintf(value, sizeof value, "(0x%x)", static_cast<unsigned>(type) & 0xffU);
    return stream << short_name(type) << value;
}

} // namespace proto::bus
