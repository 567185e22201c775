#include "bus/payload_text.hpp"

#include "bus/Envelope.hpp"

#include <algorithm>

namespace tessaron::bus {

std::string format_bus_trace_data(proto::bus::Bytes const& payload) {
    auto const envelope = try_decode_envelope(payload);
    if (!envelope) {
        return "(raw " + std::to_string(payload.size()) + "b)";
    }
    std::string text;
    for (auto const& [key, value] : envelope->fields) {
        text += (text.empty() ? "" : ", ") + key + '=' + value;
        if (text.size() > K_MAX_PAYLOAD_TEXT_SIZE) {
            text.resize(K_MAX_PAYLOAD_TEXT_SIZE);
            break;
        }
    }
    std::replace_if(
        text.begin(), text.end(),
        [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }, '.');
    return text;
}

} // namespace tessaron::bus
