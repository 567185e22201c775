#include "MirelClientApp/web/sha1.hpp"

#include <algorithm>
#include <cstring>

namespace mirelclient::detail {

namespace {

struct Round {
    std::uint32_t f;
    std::uint32_t constant;
};

/// What differs between the four quarters of the 80 steps.
Round round_of(int step, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    if (step < 20) {
        return {(b & c) | (~b & d), 0x5A827999};
    }
    if (step < 40) {
        return {b ^ c ^ d, 0x6ED9EBA1};
    }
    if (step < 60) {
        return {(b & c) | (b & d) | (c & d), 0x8F1BBCDC};
    }
    return {b ^ c ^ d, 0xCA62C1D6};
}

std::uint32_t load_big_endian(std::uint8_t const* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
}

template <typename Unsigned>
void store_big_endian(Unsigned value, std::uint8_t* bytes) {
    for (std::size_t i = sizeof(Unsigned); i-- > 0; value = static_cast<Unsigned>(value >> 8)) {
        bytes[i] = static_cast<std::uint8_t>(value);
    }
}

} // namespace

void Sha1::reset() {
    state_ = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    total_ = 0;
}

void Sha1::update(void const* data, std::size_t size) {
    auto const* bytes = static_cast<std::uint8_t const*>(data);
    while (size > 0) {
        std::size_t const filled = total_ % K_BLOCK_SIZE;
        std::size_t const taken = std::min(size, K_BLOCK_SIZE - filled);
        std::memcpy(block_.data() + filled, bytes, taken);
        total_ += taken;
        bytes += taken;
        size -= taken;
        if (filled + taken == K_BLOCK_SIZE) {
            transform(block_.data());
        }
    }
}

Sha1::Digest Sha1::digest() {
    // A one bit, zeros up to 8 bytes before the end of a block, and the length in bits.
    std::uint64_t const bits = total_ * 8;
    std::array<std::uint8_t, K_BLOCK_SIZE + 8> tail{0x80};
    std::size_t const filled = total_ % K_BLOCK_SIZE;
    std::size_t const padding = (filled < 56 ? 56 : 120) - filled;
    store_big_endian(bits, tail.data() + padding);
    update(tail.data(), padding + 8);

    Digest digest;
    for (std::size_t i = 0; i < state_.size(); ++i) {
        store_big_endian(state_[i], digest.data() + 4 * i);
    }
    reset();
    return digest;
}

void Sha1::transform(std::uint8_t const* block) {
    std::array<std::uint32_t, 80> words;
    for (std::size_t i = 0; i < 16; ++i) {
        words[i] = load_big_endian(block + 4 * i);
    }
    for (std::size_t i = 16; i < words.size(); ++i) {
        words[i] = rol(words[i - 3] ^ words[i - 8] ^ words[i - 14] ^ words[i - 16], 1);
    }
    auto [a, b, c, d, e] = state_;
    for (int step = 0; step < 80; ++step) {
        auto const [f, constant] = round_of(step, b, c, d);
        std::uint32_t const next =
            rol(a, 5) + f + e + constant + words[static_cast<std::size_t>(step)];
        e = d;
        d = c;
        c = rol(b, 30);
        b = a;
        a = next;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
    state_[4] += e;
}

} // namespace mirelclient::detail
