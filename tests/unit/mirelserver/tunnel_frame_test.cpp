#include "mirelserver/tunnel_frame.hpp"

#include <algorithm>
#include <gtest/gtest.h>

namespace mirelserver {
namespace {

TEST(ServerTunnelFrame, IsBigEndianAndCarriesItsPayload) {
    EXPECT_EQ(encode_frame(FRAME_DATA, 0x01020304, "hey"),
              std::string("\x03\x01\x02\x03\x04\0\0\0\x03hey", 12));
    EXPECT_EQ(encode_frame(FRAME_CLOSE, 0xfffefdfc),
              std::string("\x04\xff\xfe\xfd\xfc\0\0\0\0", 9));
}

TEST(ServerTunnelFrame, ADecodedHeaderIsTheEncodedOne) {
    std::string const frame = encode_frame(FRAME_PROBE, 0x80ff7f01, std::string(70'000, 'x'));
    std::array<char, K_FRAME_HEADER_SIZE> bytes{};
    std::copy_n(frame.begin(), bytes.size(), bytes.begin());
    EXPECT_EQ(decode_header(bytes), (FrameHeader{FRAME_PROBE, 0x80ff7f01, 70'000}));
}

} // namespace
} // namespace mirelserver
