#include "libraries/crypto/chacha20/ChaCha20.hpp"

#include <algorithm>
#include <bit>

namespace proto::crypto {
namespace {

using State = std::array<std::uint32_t, 16>;

std::uint32_t load_word(unsigned char const* bytes) {
    return std::uint32_t{bytes[0]} | std::uint32_t{bytes[1]} << 8 | std::uint32_t{bytes[2]} << 16 |
           std::uint32_t{bytes[3]} << 24;
}

void store_word(unsigned char* bytes, std::uint32_t word) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
        *bytes++ = static_cast<unsigned char>(word >> shift);
    }
}

/// "expand 32-byte k", the key, the counter and the nonce.
State initial_state(ChaCha20::Key const& key, ChaCha20::Nonce const& nonce, std::uint32_t counter) {
    State state{0x61707865, 0x3320646e, 0x79622d32, 0x6b206574};
    for (std::size_t i = 0; i < 8; ++i) {
        state[4 + i] = load_word(key.data() + 4 * i);
    }
    state[12] = counter;
    for (std::size_t i = 0; i < 3; ++i) {
        state[13 + i] = load_word(nonce.data() + 4 * i);
    }
    return state;
}

void quarter_round(std::uint32_t& a, std::uint32_t& b, std::uint32_t& c, std::uint32_t& d) {
    a += b;
    d = std::rotl(d ^ a, 16);
    c += d;
    b = std::rotl(b ^ c, 12);
    a += b;
    d = std::rotl(d ^ a, 8);
    c += d;
    b = std::rotl(b ^ c, 7);
}

void double_round(State& x) {
    quarter_round(x[0], x[4], x[8], x[12]);
    quarter_round(x[1], x[5], x[9], x[13]);
    quarter_round(x[2], x[6], x[10], x[14]);
    quarter_round(x[3], x[7], x[11], x[15]);
    quarter_round(x[0], x[5], x[10], x[15]);
    quarter_round(x[1], x[6], x[11], x[12]);
    quarter_round(x[2], x[7], x[8], x[13]);
    quarter_round(x[3], x[4], x[9], x[14]);
}

} // namespace

ChaCha20::Block ChaCha20::block(Nonce const& nonce, std::uint32_t counter) const {
    State const input = initial_state(key_, nonce, counter);
    State state = input;
    for (int i = 0; i < 10; ++i) {
        double_round(state);
    }
    Block output;
    for (std::size_t i = 0; i < state.size(); ++i) {
        store_word(output.data() + 4 * i, state[i] + input[i]);
    }
    return output;
}

void ChaCha20::apply_in_place(unsigned char* bytes, std::size_t size, Nonce const& nonce,
                              std::uint32_t counter) const {
    for (std::size_t at = 0; at < size; at += K_BLOCK_SIZE) {
        Block const key_stream = block(nonce, counter++);
        std::size_t const count = std::min(K_BLOCK_SIZE, size - at);
        for (std::size_t i = 0; i < count; ++i) {
            bytes[at + i] ^= key_stream[i];
        }
    }
}

void ChaCha20::apply(std::vector<unsigned char>& bytes, Nonce const& nonce,
                     std::uint32_t counter) const {
    apply_in_place(bytes.data(), bytes.size(), nonce, counter);
}

void ChaCha20::encrypt(std::vector<unsigned char>& bytes, Nonce const& nonce,
                       std::uint32_t counter) const {
    apply(bytes, nonce, counter);
}

} // namespace proto::crypto
