#include "libraries/crc/crcSoft/CrcSoft.hpp"

namespace proto {
namespace {

constexpr std::uint32_t K_POLYNOMIAL = 0x4C11DB7;
constexpr std::uint32_t K_REFLECTED_POLYNOMIAL = 0xEDB88320;

std::uint32_t forward_entry(std::uint32_t index) {
    std::uint32_t value = index << 24;
    for (int bit = 0; bit < 8; ++bit) {
        value = (value & 0x80000000U) != 0 ? value << 1 ^ K_POLYNOMIAL : value << 1;
    }
    return value;
}

std::uint32_t reflected_entry(std::uint32_t index) {
    std::uint32_t value = index;
    for (int bit = 0; bit < 8; ++bit) {
        value = (value & 1U) != 0 ? value >> 1 ^ K_REFLECTED_POLYNOMIAL : value >> 1;
    }
    return value;
}

} // namespace

CrcSoft::CrcSoft() : ICrc("crc32 arm module") {
    for (std::uint32_t i = 0; i < forward_.size(); ++i) {
        forward_[i] = forward_entry(i);
        reflected_[i] = reflected_entry(i);
    }
}

unsigned int CrcSoft::calc(tessaron::CustomSpan<unsigned char> bytes) const {
    return append(0, bytes);
}

unsigned int CrcSoft::append(unsigned int crc, tessaron::CustomSpan<unsigned char> bytes) const {
    std::uint32_t x = ~crc;
    for (unsigned char const byte : bytes) {
        x = reflected_[(x ^ byte) & 255U] ^ x >> 8;
    }
    return ~x;
}

} // namespace proto
