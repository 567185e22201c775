#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace proto::crypto {

/// The stream cipher ChaCha20 of RFC 8439. It hides, and authenticates nothing: whoever decrypts
/// with another key or nonce gets other bytes, and no error.
///
/// A nonce must not be used twice with one key. Encrypting and decrypting are the same operation.
///
/// Thread safety: immutable after construction.
/// Errors: none.
class ChaCha20 {
public:
    static constexpr std::size_t K_KEY_SIZE = 32;
    static constexpr std::size_t K_NONCE_SIZE = 12;
    static constexpr std::size_t K_BLOCK_SIZE = 64;
    using Key = std::array<unsigned char, K_KEY_SIZE>;
    using Nonce = std::array<unsigned char, K_NONCE_SIZE>;
    using Block = std::array<unsigned char, K_BLOCK_SIZE>;

    explicit ChaCha20(Key const& key) : key_(key) {}

    /// One block of the key stream.
    Block block(Nonce const& nonce, std::uint32_t counter) const;
    /// Combines the bytes with the key stream from block `counter` on.
    void apply_in_place(unsigned char* bytes, std::size_t size, Nonce const& nonce,
                        std::uint32_t counter) const;
    void apply(std::vector<unsigned char>& bytes, Nonce const& nonce, std::uint32_t counter) const;
    void encrypt(std::vector<unsigned char>& bytes, Nonce const& nonce,
                 std::uint32_t counter) const;

private:
    Key key_;
};

} // namespace proto::crypto
