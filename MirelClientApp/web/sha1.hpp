#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace mirelclient::detail {

/// SHA-1 (FIPS 180) for the WebSocket handshake, where it guards nothing: it only shows that the
/// server understood the request. Not for anything that must resist an attacker.
///
///     Sha1 sha1;
///     sha1.update(text.data(), text.size());
///     auto const digest = sha1.digest();
///
/// Thread safety: one thread at a time, the caller's duty.
class Sha1 {
public:
    static constexpr std::size_t K_DIGEST_SIZE = 20;
    using Digest = std::array<std::uint8_t, K_DIGEST_SIZE>;

    Sha1() { reset(); }

    void update(void const* data, std::size_t size);
    /// The digest of all that was passed to `update`; the object then begins anew.
    Digest digest();
    void reset();

private:
    static constexpr std::size_t K_BLOCK_SIZE = 64;

    static std::uint32_t rol(std::uint32_t value, int bits) {
        return (value << bits) | (value >> (32 - bits));
    }
    void transform(std::uint8_t const* block);

    std::array<std::uint32_t, 5> state_;
    std::array<std::uint8_t, K_BLOCK_SIZE> block_;
    std::uint64_t total_; ///< bytes so far
};

} // namespace mirelclient::detail
