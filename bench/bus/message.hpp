#pragma once

#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

namespace bench::bus {

using Bytes = std::vector<std::uint8_t>;

/// Nanoseconds of the clock that all processes of a machine share.
inline std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// What a message begins with; `number` stands in its last bytes again, so that one which was put
/// together wrongly is told from a good one.
struct Head {
    std::int64_t sent_at = 0;
    std::uint32_t round = 0;
    std::uint32_t number = 0;
};

inline void stamp(Bytes& message, Head const& head) {
    std::memcpy(message.data() + message.size() - sizeof head.number, &head.number,
                sizeof head.number);
    std::memcpy(message.data(), &head, sizeof head);
}

} // namespace bench::bus
