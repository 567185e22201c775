#include "app/utilities/process_identity.hpp"

#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

namespace tessaron::detail {
namespace {

TEST(ProcessIdentity, ExecutablePathIsThisTestProgram) {
    EXPECT_EQ(get_executable_path(), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(ProcessIdentity, ExecutablePathIsReadOnce) {
    EXPECT_EQ(&get_executable_path(), &get_executable_path());
}

TEST(ProcessIdentity, UsernameIsThatOfTheEffectiveUser) {
    passwd const* const entry = getpwuid(geteuid());
    EXPECT_EQ(get_username(), entry != nullptr ? entry->pw_name : "");
}

} // namespace
} // namespace tessaron::detail
