#pragma once

#include <type_traits>

namespace proto {

/// What a field takes part in. A set: combine with `|`, test with `has_flag`.
enum class FieldFlags : unsigned char {
    None = 0,
    InLen = 1,       ///< Its size is counted in the value of the length field.
    InCrc = 2,       ///< Its bytes are fed to the CRC.
    ByteSwapped = 4, ///< Its bytes stand on the wire in the reverse of their order in memory.
};

/// What a container with `debug` on prints on standard output.
enum class DebugPrintFlags : unsigned char {
    None = 0,
    Received = 1, ///< Each frame, when it is complete.
    Sent = 2,     ///< Each field as it is sent.
    Broken = 4,   ///< Why a frame broke, and its fields as far as they came.
};

template <typename Flags>
requires std::is_same_v<Flags, FieldFlags> || std::is_same_v<Flags, DebugPrintFlags>
constexpr Flags operator&(Flags a, Flags b) noexcept {
    return static_cast<Flags>(static_cast<unsigned>(a) & static_cast<unsigned>(b));
}

template <typename Flags>
requires std::is_same_v<Flags, FieldFlags> || std::is_same_v<Flags, DebugPrintFlags>
constexpr Flags operator|(Flags a, Flags b) noexcept {
    return static_cast<Flags>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

template <typename Flags>
constexpr bool has_flag(Flags value, Flags flag) noexcept {
    return (value & flag) == flag;
}

} // namespace proto
