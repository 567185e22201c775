#include "libraries/crc/crcFast/CrcFast.hpp"

#include <isa-l/crc.h>

namespace proto {

CrcFast::CrcFast() : ICrc("crc32 isa-l module") {
}

unsigned int CrcFast::calc(tessaron::CustomSpan<unsigned char> bytes) const {
    return append(0, bytes);
}

unsigned int CrcFast::append(unsigned int crc, tessaron::CustomSpan<unsigned char> bytes) const {
    // Without bytes there may be no buffer either.
    return bytes.empty() ? crc : crc32_gzip_refl(crc, bytes.data(), bytes.size());
}

} // namespace proto
