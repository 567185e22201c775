#include "app/app_control_version.hpp"

#include "app/build_info.hpp"

#include <gtest/gtest.h>

namespace tessaron {
namespace {

TEST(AppControlVersion, IsReadFromTheLeadingNumbers) {
    EXPECT_EQ(parse_semver_core("1.2.3"), (AppControlVersion{1, 2, 3}));
    EXPECT_EQ(parse_semver_core("1.2.3-20260101.120000-host"), (AppControlVersion{1, 2, 3}));
    EXPECT_EQ(parse_semver_core("1.2.3.4"), (AppControlVersion{1, 2, 3}));
    EXPECT_EQ(parse_semver_core("007.08.09"), (AppControlVersion{7, 8, 9}));
}

TEST(AppControlVersion, WhatIsMissingIsZero) {
    EXPECT_EQ(parse_semver_core(""), AppControlVersion());
    EXPECT_EQ(parse_semver_core("x1.2.3"), AppControlVersion());
    EXPECT_EQ(parse_semver_core("4"), (AppControlVersion{4, 0, 0}));
    EXPECT_EQ(parse_semver_core("1.2"), (AppControlVersion{1, 2, 0}));
    EXPECT_EQ(parse_semver_core("4.x.5"), (AppControlVersion{4, 0, 0}));
    EXPECT_EQ(parse_semver_core("4..5"), (AppControlVersion{4, 0, 5}));
    EXPECT_EQ(parse_semver_core(".1"), (AppControlVersion{0, 1, 0}));
}

TEST(AppControlVersion, WhatIsTooLargeStaysTheLargest) {
    EXPECT_EQ(parse_semver_core("65535.255.255"), (AppControlVersion{65535, 255, 255}));
    EXPECT_EQ(parse_semver_core("65536.256.99999999999999999999"),
              (AppControlVersion{65535, 255, 255}));
    EXPECT_EQ(parse_semver_core("300.400.1"), (AppControlVersion{300, 255, 1}));
}

TEST(AppControlVersion, IsPackedInOrder) {
    EXPECT_EQ(pack_app_control_version({1, 2, 3}), 0x00010203U);
    EXPECT_EQ(pack_app_control_version({65535, 255, 255}), 0xFFFFFFFFU);
    EXPECT_EQ(app_control_protocol_version(),
              pack_app_control_version(parse_semver_core(build_version())));
}

} // namespace
} // namespace tessaron
