#include "libraries/crc/crcFast/CrcFast.hpp"

#include <libdeflate.h>

namespace proto {

CrcFast::CrcFast() : ICrc("crc32 libdeflate module") {
}

unsigned int CrcFast::calc(tessaron::CustomSpan<unsigned char> bytes) const {
    return append(0, bytes);
}

unsigned int CrcFast::append(unsigned int crc, tessaron::CustomSpan<unsigned char> bytes) const {
    // Without bytes there may be no buffer either, which the library takes as a call to begin anew.
    return bytes.empty() ? crc : libdeflate_crc32(crc, bytes.data(), bytes.size());
}

} // namespace proto
