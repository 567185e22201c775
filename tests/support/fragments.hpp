#pragma once

#include "bus/WireFrame.hpp"

#include <cstdint>
#include <utility>
#include <vector>

namespace tessaron::test {

/// A fragment of an event of the node 7.
inline bus::WireFrame fragment(std::uint32_t msg_id, std::uint16_t index, bool last,
                               std::vector<std::uint8_t> data) {
    bus::WireFrame frame;
    frame.type = proto::bus::MessageType::EVENT;
    frame.source = 7;
    frame.dest = 0xffffffff;
    frame.msg_id = msg_id;
    frame.frag_index = index;
    frame.frag_flags =
        last ? bus::K_FRAG_FLAG_FRAGMENT | bus::K_FRAG_FLAG_LAST : bus::K_FRAG_FLAG_FRAGMENT;
    frame.data = std::move(data);
    return frame;
}

} // namespace tessaron::test
