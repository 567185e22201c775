#include "app/utilities/SpawnPlan.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

namespace tessaron {
namespace {

class SpawnPlanTest : public testing::Test {
protected:
    /// Runs a script by the plan, with its standard output in a file, and returns what it printed.
    std::string output_of(SpawnPlan& plan, std::string script, char* const* environment = nullptr) {
        std::string const path = directory_ / "output";
        plan.open(1, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
        std::string name = "sh";
        std::string option = "-c";
        char* const arguments[] = {name.data(), option.data(), script.data(), nullptr};
        pid_ = plan.spawn("/bin/sh", arguments, environment);
        EXPECT_GT(pid_, 0);
        EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
        return read_file(path).value_or("no output");
    }
    std::string own_pid() const { return std::to_string(pid_) + "\n"; }

    test::TemporaryDirectory directory_;
    pid_t pid_ = -1;
};

constexpr char const* K_PRINT_GROUP = "ps -o pgid= -p $$ | tr -d ' '";
constexpr char const* K_PRINT_SESSION = "ps -o sid= -p $$ | tr -d ' '";

TEST_F(SpawnPlanTest, TheChildStaysInItsParentsGroupUnlessItIsToLeadOne) {
    SpawnPlan plain;
    std::string const group = output_of(plain, K_PRINT_GROUP);
    EXPECT_NE(group, own_pid());
    SpawnPlan leading;
    leading.lead_own_group();
    std::string const led_group = output_of(leading, K_PRINT_GROUP);
    EXPECT_EQ(led_group, own_pid());
    SpawnPlan still_in_session;
    still_in_session.lead_own_group();
    std::string const session = output_of(still_in_session, K_PRINT_SESSION);
    EXPECT_NE(session, own_pid());
}

TEST_F(SpawnPlanTest, ASessionOfItsOwnIsAGroupOfItsOwn) {
    for (char const* print : {K_PRINT_SESSION, K_PRINT_GROUP}) {
        SpawnPlan plan;
        plan.lead_own_session();
        std::string const id = output_of(plan, print);
        EXPECT_EQ(id, own_pid());
    }
}

TEST_F(SpawnPlanTest, TheEnvironmentIsThatOfTheParentOrTheGivenOne) {
    ::setenv("SPAWN_PLAN_TEST", "inherited", 1);
    SpawnPlan inheriting;
    EXPECT_EQ(output_of(inheriting, "echo $SPAWN_PLAN_TEST"), "inherited\n");
    std::string variable = "SPAWN_PLAN_TEST=given";
    char* const environment[] = {variable.data(), nullptr};
    SpawnPlan given;
    EXPECT_EQ(output_of(given, "echo $SPAWN_PLAN_TEST", environment), "given\n");
    ::unsetenv("SPAWN_PLAN_TEST");
}

TEST_F(SpawnPlanTest, DescriptorsAreRedirectedAndClosed) {
    UniqueFd const inheritable(::open("/dev/null", O_RDONLY));
    ASSERT_GE(inheritable.get(), 3);
    SpawnPlan plan;
    plan.close_from(3);
    plan.redirect(0, 7); // a later step than the closing
    std::string const asked = "/proc/$$/fd/" + std::to_string(inheritable.get());
    EXPECT_EQ(
        output_of(plan, "[ -e " + asked + " ] || echo closed; [ -e /proc/$$/fd/7 ] && echo 7"),
        "closed\n7\n");
}

TEST_F(SpawnPlanTest, AProgramThatCannotBeExecutedIsNoChild) {
    SpawnPlan plan;
    std::string name = "none";
    char* const arguments[] = {name.data(), nullptr};
    EXPECT_EQ(plan.spawn((directory_ / "none").c_str(), arguments), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(SpawnPlanTest, AStepThatCannotBeIsToldByTheSpawn) {
    SpawnPlan plan;
    plan.redirect(-1, 1);
    std::string name = "true";
    char* const arguments[] = {name.data(), nullptr};
    EXPECT_EQ(plan.spawn("/bin/true", arguments), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
} // namespace tessaron
