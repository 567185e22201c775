#pragma once

#include "libraries/vocabulary/ICrc.hpp"

#include <cstddef>

namespace proto::test {

/// A CRC-32 as its definition says it, bit by bit.
class BitwiseCrc final : public ICrc {
public:
    BitwiseCrc() : ICrc("bit by bit") {}

    void reset() override {}
    unsigned int calc(tessaron::CustomSpan<unsigned char> bytes) const override {
        return append(0, bytes);
    }
    unsigned int append(unsigned int crc,
                        tessaron::CustomSpan<unsigned char> bytes) const override {
        unsigned int x = ~crc;
        for (unsigned char const byte : bytes) {
            x ^= byte;
            for (int bit = 0; bit < 8; ++bit) {
                x = (x >> 1) ^ ((x & 1) != 0 ? 0xEDB88320U : 0U);
            }
        }
        return ~x;
    }
};

} // namespace proto::test
