#include "package/package_commands.hpp"

#include <gtest/gtest.h>

namespace tessaron {
namespace {

using namespace package_commands;

TEST(PackageCommands, HaveTheirTexts) {
    EXPECT_EQ(make_directories("/a b"), "mkdir -p '/a b'");
    EXPECT_EQ(remove_tree("/a b"), "rm -rf '/a b'");
    EXPECT_EQ(extract_artifact("/a", "/b"), "tar -xzf '/a' -C '/b'");
    EXPECT_EQ(extract_payload("/a", "/b"), "tar -xf '/a' -C '/b'");
    EXPECT_EQ(digest("/a"), "( shasum -a 256 '/a' 2>/dev/null || sha256sum '/a' 2>/dev/null ) "
                            "| cut -d' ' -f1");
    EXPECT_EQ(lifecycle({.working_dir = "/w",
                         .script_name = "install.sh",
                         .name = "n",
                         .version = "1",
                         .arch = "",
                         .install_path = "/i",
                         .action = "install"}),
              "cd '/w' && MIREL_PACKAGE_NAME='n' MIREL_PACKAGE_VERSION='1' MIREL_PACKAGE_ARCH='' "
              "MIREL_INSTALL_PATH='/i' MIREL_PACKAGE_ACTION='install' sh 'install.sh'");
}

TEST(PackageCommands, QuoteEveryValue) {
    EXPECT_EQ(make_directories("'"), R"(mkdir -p ''\''')");
    EXPECT_EQ(remove_tree("'"), R"(rm -rf ''\''')");
    EXPECT_EQ(extract_artifact("'a", "'b"), R"(tar -xzf ''\''a' -C ''\''b')");
    EXPECT_EQ(extract_payload("'a", "'b"), R"(tar -xf ''\''a' -C ''\''b')");
    EXPECT_EQ(digest("'"), R"(( shasum -a 256 ''\''' 2>/dev/null || )"
                           R"(sha256sum ''\''' 2>/dev/null ) | cut -d' ' -f1)");
    EXPECT_EQ(lifecycle({"'1", "'2", "'3", "'4", "'5", "'6", "'7"}),
              R"(cd ''\''1' && MIREL_PACKAGE_NAME=''\''3' MIREL_PACKAGE_VERSION=''\''4' )"
              R"(MIREL_PACKAGE_ARCH=''\''5' MIREL_INSTALL_PATH=''\''6' )"
              R"(MIREL_PACKAGE_ACTION=''\''7' sh ''\''2')");
}

} // namespace
} // namespace tessaron
