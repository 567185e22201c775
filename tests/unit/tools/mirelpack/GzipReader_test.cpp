#include "tools/mirelpack/GzipReader.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tools/mirelpack/PackError.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <zlib.h>

namespace mirelpack {
namespace {

std::string gzip(std::string const& text) {
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string out(text.size() + 1000, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

class GzipReaderTest : public testing::Test {
protected:
    std::string decompress(std::string const& bytes) {
        std::string const path = directory_ / "file";
        EXPECT_TRUE(tessaron::write_file(path, bytes, O_TRUNC));
        GzipReader reader(path);
        std::string text;
        std::vector<char> block(1000);
        while (std::size_t const size = reader.read(block)) {
            text.append(block.data(), size);
        }
        return text;
    }

    tessaron::test::TemporaryDirectory directory_;
    std::string text_ = std::string(5000, 'a') + "end";
};

TEST_F(GzipReaderTest, TextComesBack) {
    EXPECT_EQ(decompress(gzip(text_)), text_);
    EXPECT_EQ(decompress(gzip("")), "");
}

TEST_F(GzipReaderTest, SeveralMembersAreOneText) {
    EXPECT_EQ(decompress(gzip("one ") + gzip("") + gzip("two")), "one two");
}

TEST_F(GzipReaderTest, ZerosMayFollow) {
    EXPECT_EQ(decompress(gzip(text_) + std::string(600, '\0')), text_);
}

TEST_F(GzipReaderTest, GarbageMayNotFollow) {
    EXPECT_THROW(decompress(gzip(text_) + "garbage"), PackError);
    EXPECT_THROW(decompress(gzip(text_) + std::string("\0x", 2)), PackError);
}

TEST_F(GzipReaderTest, EveryTruncationIsNoticed) {
    std::string const whole = gzip(text_);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_THROW(decompress(whole.substr(0, size)), PackError) << size;
    }
}

TEST_F(GzipReaderTest, EveryDamagedByteBehindTheHeaderIsNoticed) {
    std::string const whole = gzip(text_);
    std::size_t noticed = 0;
    for (std::size_t i = 10; i < whole.size(); ++i) {
        std::string damaged = whole;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
        try {
            // Another way to write the same text is no damage.
            EXPECT_EQ(decompress(damaged), text_) << i;
        } catch (PackError const&) {
            ++noticed;
        }
    }
    EXPECT_GT(noticed, whole.size() / 2);
}

TEST_F(GzipReaderTest, OtherFilesAreRefused) {
    EXPECT_THROW(decompress(""), PackError);
    EXPECT_THROW(decompress("plain text"), PackError);
    EXPECT_THROW(GzipReader(directory_ / "missing"), PackError);
}

} // namespace
} // namespace mirelpack
