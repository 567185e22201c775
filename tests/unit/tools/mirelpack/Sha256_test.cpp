#include "tools/mirelpack/Sha256.hpp"

#include <gtest/gtest.h>

namespace mirelpack {
namespace {

TEST(Sha256, KnownTextsHaveTheirKnownDigests) {
    EXPECT_EQ(Sha256().finish(),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    Sha256 digest;
    digest.update("a", 1);
    digest.update("bc", 2);
    EXPECT_EQ(digest.finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

} // namespace
} // namespace mirelpack
