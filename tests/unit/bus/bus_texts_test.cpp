#include "bus/glob_pattern.hpp"
#include "bus/identity_text.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace tessaron::bus {
namespace {

TEST(GlobPattern, IsATextWithAStar) {
    EXPECT_TRUE(is_glob_pattern("*"));
    EXPECT_TRUE(is_glob_pattern("a.*.b"));
    EXPECT_FALSE(is_glob_pattern("a.b"));
    EXPECT_FALSE(is_glob_pattern("a?[b]"));
    EXPECT_FALSE(is_glob_pattern(""));
}

TEST(IdentityText, EndsAtTheFirstZeroByte) {
    auto const identity = proto::bus::make_identity("name", "", 1);
    EXPECT_EQ(identity_field_to_string(identity.name, sizeof identity.name), "name");
    EXPECT_EQ(identity_field_to_string(identity.binary, sizeof identity.binary), "");
}

TEST(IdentityText, WithoutAZeroByteEndsWithTheField) {
    proto::bus::NodeIdentity identity = proto::bus::make_identity("", "next field", 1);
    std::fill(std::begin(identity.name), std::end(identity.name), 'x');
    EXPECT_EQ(identity_field_to_string(identity.name, 50), std::string(50, 'x'));
}

} // namespace
} // namespace tessaron::bus
