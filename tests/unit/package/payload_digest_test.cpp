#include "package/payload_digest.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/artifact_builder.hpp"

#include <gtest/gtest.h>

namespace tessaron {
namespace {

using test::TemporaryDirectory;
using test::write_text;

constexpr char const* K_DIGEST_OF_ABC =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(PayloadDigest, IsTheKnownOneInLowercase) {
    TemporaryDirectory const directory;
    write_text(directory / "abc", "abc");
    EXPECT_EQ(sha256_of_file(directory / "abc"), K_DIGEST_OF_ABC);
    write_text(directory / "empty", "");
    EXPECT_EQ(sha256_of_file(directory / "empty"),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(PayloadDigest, IsNothingForAFileThatCannotBeRead) {
    TemporaryDirectory const directory;
    EXPECT_EQ(sha256_of_file(directory / "none"), std::nullopt);
    EXPECT_EQ(sha256_of_file(directory.path()), std::nullopt);
}

TEST(PayloadDigest, DoesNotDependOnTheFilesName) {
    TemporaryDirectory const directory;
    for (std::string const name :
         {"it's", "back\\slash", "new\nline", "carriage\rreturn", "$(id)", "\\", "a  b", "*"}) {
        write_text(directory / name, "abc");
        EXPECT_EQ(sha256_of_file(directory / name), K_DIGEST_OF_ABC) << name;
    }
}

TEST(PayloadDigest, IsNothingAfterAStopRequest) {
    TemporaryDirectory const directory;
    write_text(directory / "abc", "abc");
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(sha256_of_file(directory / "abc", stop.get_token()), std::nullopt);
}

} // namespace
} // namespace tessaron
