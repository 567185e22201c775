#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

namespace proto::bus {

/// The node that a message first came from, when that node sits behind a hub.
///
/// In memory it is the six bytes that go over the wire, so that a frame's option field can copy it
/// as it stands; hence the accessors.
///
/// Thread safety: immutable after construction.
class Origin {
public:
    constexpr Origin() = default;
    constexpr Origin(std::uint32_t hub_address, std::uint16_t local_address)
        : bytes_{static_cast<std::uint8_t>(hub_address),
                 static_cast<std::uint8_t>(hub_address >> 8),
                 static_cast<std::uint8_t>(hub_address >> 16),
                 static_cast<std::uint8_t>(hub_address >> 24),
                 static_cast<std::uint8_t>(local_address),
                 static_cast<std::uint8_t>(local_address >> 8)} {}

    constexpr std::uint32_t hub_address() const {
        return std::uint32_t{bytes_[0]} | std::uint32_t{bytes_[1]} << 8 |
               std::uint32_t{bytes_[2]} << 16 | std::uint32_t{bytes_[3]} << 24;
    }
    constexpr std::uint16_t local_address() const {
        return static_cast<std::uint16_t>(bytes_[4] | bytes_[5] << 8);
    }

    bool operator==(Origin const&) const = default;

private:
    std::array<std::uint8_t, 6> bytes_{};
};

static_assert(sizeof(Origin) == 6 && std::is_trivially_copyable_v<Origin>);

} // namespace proto::bus
