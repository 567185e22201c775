#pragma once

#include "proto/bus/Bytes.hpp"
#include "proto/bus/MessageType.hpp"

#include <cstdint>
#include <string>

namespace tessaron::bus {

/// One message as it is handed to a local client: complete, put together, unpacked.
struct Frame {
    proto::bus::MessageType type{};
    std::uint32_t source = 0;
    std::uint32_t destination = 0;
    std::uint32_t msg_id = 0; ///< A request and its response have the same.
    std::uint16_t frag_index = 0;
    std::uint8_t ttl = 0;
    std::uint16_t wire_tag = 0; ///< The frame's flags, as received.
    proto::bus::Bytes payload;
    std::uint32_t return_route = 0; ///< Where an answer goes.
    std::uint16_t topic_id = 0;     ///< 0 when the frame has none.
    std::string topic;              ///< Empty when nobody has said its name yet.
};

} // namespace tessaron::bus
