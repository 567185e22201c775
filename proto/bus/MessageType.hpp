#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

namespace proto::bus {

/// What a frame's payload is. A byte from the wire may have any value: one that stands for nothing
/// here is held, printed and dropped like the others.
enum class MessageType : std::uint8_t {
    SUBSCRIBE_REQUEST = 0x10,   ///< Identity and topic pattern.
    SUBSCRIBE_RESPONSE = 0x11,  ///< Identity and topic.
    UNSUBSCRIBE_REQUEST = 0x12, ///< Identity and topic pattern.
    DISCOVERY_REQUEST = 0x20,   ///< No payload.
    DISCOVERY_RESPONSE = 0x21,  ///< See `encode_identity_topics_and_roles`.
    EVENT = 0x30,               ///< The application's bytes, as a rule an `Envelope`.
    REQUEST = 0x40,             ///< The application's bytes.
    RESPONSE = 0x41,            ///< The application's bytes.
};

/// "EVENT"; "UNKNOWN" for a value that is none of ours. Async-signal-safe.
std::string_view short_name(MessageType type) noexcept;

/// "EVENT(0x30)"; "UNKNOWN(0x7f)" for a value that is none of ours.
std::ostream& operator<<(std::ostream& stream, MessageType type);

} // namespace proto::bus
