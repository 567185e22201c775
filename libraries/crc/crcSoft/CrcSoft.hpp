#pragma once

#include "libraries/vocabulary/ICrc.hpp"

#include <array>
#include <cstdint>

namespace proto {

/// The CRC-32 by a table, a byte at a time: slow, portable, and the one that others are compared
/// with.
///
/// Thread safety: immutable after construction.
/// Errors: none.
class CrcSoft final : public ICrc {
public:
    CrcSoft();

    /// Does nothing: the caller carries the running value.
    void reset() override {}
    unsigned int calc(tessaron::CustomSpan<unsigned char> bytes) const override;
    unsigned int append(unsigned int crc, tessaron::CustomSpan<unsigned char> bytes) const override;

private:
    using Table = std::array<std::uint32_t, 256>;

    Table forward_{}; ///< for the polynomial as it is written; nothing here needs it
    Table reflected_{};
};

} // namespace proto
