#include "bus/Envelope.hpp"

#include "tests/support/cut_bytes.hpp"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace tessaron::bus {
namespace {

using Bytes = std::vector<std::uint8_t>;

Envelope sample() {
    return {{{"key", "value"}, {"", ""}, {std::string("\0\xff", 2), "x"}}, {0, 1, 0xff}};
}

TEST(Envelope, WithoutFieldsAndDataIsEightZeroBytes) {
    EXPECT_EQ(encode_envelope({}), Bytes(8));
    EXPECT_EQ(try_decode_envelope(Bytes(8)), Envelope{});
}

TEST(Envelope, HasItsPartsInOrder) {
    Envelope const envelope{{{"b", "2"}, {"a", "one"}}, {7, 8}};
    Bytes const expected{2, 0, 0, 0, 1,   0, 0, 0, 'a', 3,   0, 0, 0, 'o', 'n', 'e',
                         1, 0, 0, 0, 'b', 1, 0, 0, 0,   '2', 2, 0, 0, 0,   7,   8};
    EXPECT_EQ(encode_envelope(envelope), expected);
}

TEST(Envelope, DecodesWhatWasEncoded) {
    EXPECT_EQ(decode_envelope(encode_envelope(sample())), sample());
    Envelope const large{{{"text", std::string(100'000, 't')}}, Bytes(200'000, 5)};
    EXPECT_EQ(decode_envelope(encode_envelope(large)), large);
}

TEST(Envelope, CutAnywhereIsRefused) {
    for (Bytes const& cut : test::cut_everywhere(encode_envelope(sample()))) {
        EXPECT_FALSE(try_decode_envelope(cut)) << cut.size();
    }
}

TEST(Envelope, ThatIsRefusedThrowsWhereAValueIsWanted) {
    try {
        decode_envelope({1, 2, 3});
        FAIL() << "it was decoded";
    } catch (std::invalid_argument const& error) {
        EXPECT_STREQ(error.what(), "Envelope: truncated or malformed");
    }
}

TEST(Envelope, OfAMillionFieldsInAHundredBytesIsRefused) {
    Bytes payload(100);
    payload[0] = 0x40; // 1000000 is 0x0F4240
    payload[1] = 0x42;
    payload[2] = 0x0F;
    EXPECT_FALSE(try_decode_envelope(payload));
}

TEST(Envelope, MayHaveOneFieldForEachEightBytesLeftAndNoMore) {
    // Empty keys and values, which all are one key; the data's length takes four bytes more.
    Bytes payload{3, 0, 0, 0};
    payload.resize(4 + 3 * 8 + 4);
    EXPECT_EQ(try_decode_envelope(payload), (Envelope{{{"", ""}}, {}}));
    payload[0] = 4;
    EXPECT_FALSE(try_decode_envelope(payload));
}

TEST(Envelope, ALengthThatOverrunsThePayloadIsRefused) {
    Bytes const whole = encode_envelope({{{"k", "v"}}, {1}});
    for (std::size_t const length_at : {4U, 9U, 14U}) {
        for (std::uint8_t const high : Bytes{0x01, 0x7f, 0xff}) {
            Bytes payload = whole;
            payload[length_at + 3] = high;
            EXPECT_FALSE(try_decode_envelope(payload)) << length_at;
        }
    }
}

TEST(Envelope, BytesBehindTheDataAreIgnored) {
    Bytes payload = encode_envelope(sample());
    payload.push_back(0xee);
    EXPECT_EQ(try_decode_envelope(payload), sample());
}

TEST(Envelope, ARepeatedKeyKeepsItsFirstValue) {
    Bytes const payload{2, 0, 0, 0, 1,   0, 0, 0, 'a', 1,   0, 0, 0, '1',
                        1, 0, 0, 0, 'a', 1, 0, 0, 0,   '2', 0, 0, 0, 0};
    EXPECT_EQ(try_decode_envelope(payload), (Envelope{{{"a", "1"}}, {}}));
}

TEST(EnvelopeNumbers, AreFourBytesTheLeastSignificantFirst) {
    Bytes out;
    detail::append_u32(out, 0x01020304);
    detail::append_bytes(out, "ab");
    EXPECT_EQ(out, (Bytes{4, 3, 2, 1, 'a', 'b'}));

    std::size_t cursor = 0;
    std::uint32_t value = 0;
    EXPECT_TRUE(detail::try_read_u32(out, cursor, value));
    EXPECT_EQ(value, 0x01020304U);
    EXPECT_EQ(cursor, 4U);
    EXPECT_FALSE(detail::try_read_u32(out, cursor, value));
    std::string text;
    EXPECT_FALSE(detail::try_read_string(out, cursor, text));
}

} // namespace
} // namespace tessaron::bus
