#include "tools/mirelpack/BuildId.hpp"

#include "tools/mirelpack/PackError.hpp"

#include <gtest/gtest.h>

namespace mirelpack {
namespace {

TEST(RegistryName, LettersDigitsAndSomeMarksMayStandInIt) {
    for (char const* name : {"a", "Z", "7", "hello", "1.2.3-dev.4+b~5", "a_b", "x86_64", "a.."}) {
        EXPECT_TRUE(is_registry_name(name)) << name;
    }
}

TEST(RegistryName, WhatWouldChangeAUrlOrAPathIsRefused) {
    for (char const* name : {"", ".", "..", ".hidden", "-x", "_x", "~x", "a/b", "a b", "a%20b",
                             "a?b", "a#b", "a\nb", "a\\b", "\xc3\xbc", "a:b", "a'b"}) {
        EXPECT_FALSE(is_registry_name(name)) << name;
    }
}

TEST(RegistryName, ItsLengthIsLimited) {
    EXPECT_TRUE(is_registry_name(std::string(K_MAX_NAME_SIZE, 'a')));
    EXPECT_FALSE(is_registry_name(std::string(K_MAX_NAME_SIZE + 1, 'a')));
}

TEST(BuildId, EachPartIsChecked) {
    EXPECT_NO_THROW(check_build_id({"n", "c", "v", "a"}));
    EXPECT_THROW(check_build_id({"", "c", "v", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "/", "v", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "c", "..", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "c", "v", "a b"}), PackError);
}

TEST(BuildId, NamesOfRoutesAndIndexFilesAreReserved) {
    EXPECT_THROW(check_build_id({"n", "channels", "v", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "channels.json", "v", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "channels.json.tmp", "v", "a"}), PackError);
    EXPECT_THROW(check_build_id({"n", "c", "versions.json", "a"}), PackError);
    EXPECT_NO_THROW(check_build_id({"channels", "channel", "channels", "channels"}));
}

} // namespace
} // namespace mirelpack
