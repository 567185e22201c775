#include "libraries/tunnel/tunnel_frame.hpp"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace tessaron::tunnel {
namespace {

template <typename Bytes>
std::string text_of(Bytes const& bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST(TunnelFrame, AHeaderIsTypeStreamAndLengthInNetworkOrder) {
    EXPECT_EQ(text_of(encode_header({3, 0x01020304, 0xa0b0c0d0})),
              "\x03\x01\x02\x03\x04\xa0\xb0\xc0\xd0");
}

TEST(TunnelFrame, AHeaderSurvivesTheWay) {
    for (FrameHeader const header : {FrameHeader{0, 0, 0}, FrameHeader{255, 0xffffffff, 0xffffffff},
                                     FrameHeader{FRAME_DATA, 0x80000000, K_MAX_FRAME_PAYLOAD}}) {
        EXPECT_EQ(decode_header(encode_header(header)), header);
    }
}

TEST(TunnelFrame, AWholeFrameIsItsHeaderAndItsPayload) {
    EXPECT_EQ(encode_frame(FRAME_DATA, 0x01020304, "hey"),
              std::string("\x03\x01\x02\x03\x04\0\0\0\x03hey", 12));
    EXPECT_EQ(encode_frame(FRAME_CLOSE, 0xfffefdfc),
              std::string("\x04\xff\xfe\xfd\xfc\0\0\0\0", 9));
    EXPECT_EQ(encode_frame(FRAME_DATA, 1, std::string(70'000, 'x')),
              text_of(encode_header({FRAME_DATA, 1, 70'000})) + std::string(70'000, 'x'));
}

TEST(TunnelFrame, ASubHeaderIsKindAndLengthInNetworkOrder) {
    EXPECT_EQ(text_of(encode_console_header(2, 0x01ff03fe)), "\x02\x01\xff\x03\xfe");
}

TEST(TunnelFrame, IntegersAreReadWithoutASign) {
    EXPECT_EQ(read_u32("\xff\xfe\xfd\xfc"), 0xfffefdfcU);
    EXPECT_EQ(read_u16("\xff\x80"), 0xff80U);
}

} // namespace
} // namespace tessaron::tunnel
