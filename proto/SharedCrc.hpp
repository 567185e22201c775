#pragma once

#include "libraries/vocabulary/ICrc.hpp"

namespace proto {

/// The `Crc` of containers that compute with an `ICrc` that somebody else has, so that its tables
/// are there once.
///
/// Ownership: the `ICrc` outlives it.
/// Thread safety: immutable after construction.
class SharedCrc {
public:
    explicit SharedCrc(ICrc const& crc) : crc_(&crc) {}

    void reset() const noexcept {} ///< The running value is the caller's.
    unsigned int append(unsigned int crc, tessaron::CustomSpan<unsigned char> bytes) const {
        return crc_->append(crc, bytes);
    }

private:
    ICrc const* crc_;
};

} // namespace proto
