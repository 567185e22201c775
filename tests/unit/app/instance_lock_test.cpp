#include "app/instance_lock.hpp"

#include "tests/support/CapturedStream.hpp"
#include "tests/unit/app/LockFileTest.hpp"

#include <atomic>
#include <iostream>
#include <thread>
#include <vector>

namespace tessaron::detail {
namespace {

using test::EnvironmentVariable;
using test::holder_text;
using test::OnTerm;
using test::PausedChild;

/// A command line of the program's name and these arguments.
using Arguments = std::vector<char const*>;

Arguments command_line(Arguments arguments) {
    arguments.insert(arguments.begin(), "program");
    return arguments;
}

bool wait_or_kill(Arguments const& arguments) {
    Arguments const argv = command_line(arguments);
    return argv_requests_wait_or_kill_policy(static_cast<int>(argv.size()), argv.data());
}

bool kill_only(Arguments const& arguments) {
    Arguments const argv = command_line(arguments);
    return argv_requests_kill_policy(static_cast<int>(argv.size()), argv.data());
}

/// The lock before there is a logger, in a file of the test's own.
class EarlyInstanceLock : public test::LockFileTest {
protected:
    void resolve(Arguments const& arguments,
                 std::chrono::milliseconds patience = K_KILL_PATIENCE) const {
        Arguments const argv = command_line(arguments);
        resolve_instance_conflict_before_logging_starts(name_, static_cast<int>(argv.size()),
                                                        argv.data(), patience);
    }
};

TEST(AlreadyRunningError, NamesTheApplicationAndWhatItsHolderSays) {
    EXPECT_STREQ(AlreadyRunningError("keeper", "pid=7\nuser=me\n").what(),
                 "\"keeper\" is already running:\npid=7\nuser=me\n");
    EXPECT_STREQ(AlreadyRunningError("keeper", "").what(), "\"keeper\" is already running.");
}

TEST(LockFilePath, IsBuiltFromTheName) {
    EnvironmentVariable const suffix("CONSOLE_APP_LOCK_SUFFIX", std::nullopt);
    EXPECT_EQ(make_lock_file_path("mirelclient"), "/tmp/mirelclient.lock");
}

TEST(LockFilePath, BlanksAndSlashesOfTheNameBecomeUnderscores) {
    EnvironmentVariable const suffix("CONSOLE_APP_LOCK_SUFFIX", std::nullopt);
    EXPECT_EQ(make_lock_file_path("a b/c  d"), "/tmp/a_b_c__d.lock");
    EXPECT_EQ(make_lock_file_path("../../etc/x"), "/tmp/.._.._etc_x.lock");
}

TEST(LockFilePath, ASuffixFollowsTheNameUnlessItIsEmpty) {
    EnvironmentVariable suffix("CONSOLE_APP_LOCK_SUFFIX", "one");
    EXPECT_EQ(make_lock_file_path("my app"), "/tmp/my_app_one.lock");
    suffix.set("");
    EXPECT_EQ(make_lock_file_path("my app"), "/tmp/my_app.lock");
}

TEST(HolderPid, IsTheNumberBehindTheFirstKey) {
    EXPECT_EQ(holder_pid("pid=4711\npath=/opt/pid=5\n"), 4711);
    EXPECT_EQ(holder_pid("user=me\npid=12x\npid=13\n"), 12);
    EXPECT_EQ(holder_pid("pid=99"), 99);
}

TEST(HolderPid, WithoutTheKeyThereIsNone) {
    EXPECT_EQ(holder_pid(""), std::nullopt);
    EXPECT_EQ(holder_pid("pid 4711\nPID=3\n"), std::nullopt);
}

TEST(HolderPid, WhatIsNoNumberOrFitsNoProcessIsZero) {
    EXPECT_EQ(holder_pid("pid=abc\n"), 0);
    EXPECT_EQ(holder_pid("pid="), 0);
    EXPECT_EQ(holder_pid("pid= 5"), 0);
    EXPECT_EQ(holder_pid("pid=0\n"), 0);
    EXPECT_EQ(holder_pid("pid=-5\n"), -5);
    EXPECT_EQ(holder_pid("pid=4294967297\n"), 0); // One more than a 32-bit number, and so 1.
    EXPECT_EQ(holder_pid("pid=99999999999999999999999\n"), 0);
}

TEST(PolicyOnTheCommandLine, EverySpellingOfWaitAndKillIsSeen) {
    for (Arguments const& wait :
         {Arguments{"--instance-policy", "wait"}, Arguments{"--instance-policy=wait"},
          Arguments{"--instance-policy", "1"}, Arguments{"--instance-policy=1"}}) {
        EXPECT_TRUE(wait_or_kill(wait)) << wait.back();
        EXPECT_FALSE(kill_only(wait)) << wait.back();
    }
    for (Arguments const& kill :
         {Arguments{"--instance-policy", "kill"}, Arguments{"--instance-policy=kill"},
          Arguments{"--instance-policy", "2"}, Arguments{"--instance-policy=2"}}) {
        EXPECT_TRUE(wait_or_kill(kill)) << kill.back();
        EXPECT_TRUE(kill_only(kill)) << kill.back();
    }
}

TEST(PolicyOnTheCommandLine, OtherValuesAndOtherLettersAreNone) {
    for (char const* const value : {"KILL", "Kill", "WAIT", "warn", "0", "3", "", "kill ", "02"}) {
        EXPECT_FALSE(wait_or_kill({"--instance-policy", value})) << value;
        std::string const joined = std::string("--instance-policy=") + value;
        EXPECT_FALSE(wait_or_kill({joined.c_str()})) << value;
    }
}

TEST(PolicyOnTheCommandLine, TheOptionWithoutAValueIsNone) {
    EXPECT_FALSE(wait_or_kill({"--verbose", "--instance-policy"}));
    EXPECT_FALSE(wait_or_kill({"kill"}));
    EXPECT_FALSE(wait_or_kill({"--instance", "kill"}));
    EXPECT_FALSE(wait_or_kill({}));
    EXPECT_FALSE(argv_requests_wait_or_kill_policy(0, nullptr));
}

TEST(PolicyOnTheCommandLine, WhatOnlyBeginsLikeTheOptionCounts) {
    EXPECT_TRUE(kill_only({"--instance-policyX=kill"}));
    EXPECT_TRUE(kill_only({"--instance-policy-of-mine", "kill"}));
}

TEST(PolicyOnTheCommandLine, OnlyWhatFollowsTheFirstEqualsSignCounts) {
    EXPECT_FALSE(kill_only({"--instance-policy=x=kill"}));
    EXPECT_FALSE(kill_only({"--instance-policy=", "kill"}));
}

TEST(PolicyOnTheCommandLine, EveryOccurrenceIsLookedAt) {
    EXPECT_TRUE(kill_only({"--instance-policy=warn", "--instance-policy=kill"}));
    EXPECT_TRUE(kill_only({"--instance-policy", "--instance-policy=kill"}));
    EXPECT_TRUE(kill_only({"--instance-policy", "wait", "-v", "--instance-policy", "kill"}));
}

TEST(PolicyOnTheCommandLine, TheProgramsOwnNameIsNoOption) {
    Arguments const argv = {"--instance-policy=kill"};
    EXPECT_FALSE(argv_requests_kill_policy(1, argv.data()));
}

TEST_F(EarlyInstanceLock, PeekSeesNobodyInAFileThatNobodyHolds) {
    EXPECT_EQ(peek_existing_instance_holder(name_), std::nullopt);
    write_lock_file(holder_text(1));
    EXPECT_EQ(peek_existing_instance_holder(name_), std::nullopt);
    EXPECT_EQ(lock_file_text(), holder_text(1));
    EXPECT_FALSE(is_held_as_others_see_it());
}

TEST_F(EarlyInstanceLock, PeekReportsTheHoldersWholeTextAndLeavesItAlone) {
    for (std::size_t const size : {0U, 1U, 255U, 256U, 257U, 512U, 5000U}) {
        std::string const text(size, 'x');
        PausedChild const holder(hold_lock(text));
        EXPECT_EQ(peek_existing_instance_holder(name_), text);
        EXPECT_EQ(lock_file_text(), text);
    }
}

TEST_F(EarlyInstanceLock, PeekSeesNobodyWhereTheFileCannotBeOpened) {
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    EXPECT_EQ(peek_existing_instance_holder(name_), std::nullopt);
    resolve({"--instance-policy=wait"});
    resolve({"--instance-policy=kill"});
}

TEST_F(EarlyInstanceLock, ALockEndsWithItsProcessHoweverItDies) {
    PausedChild holder(hold_lock_by_name());
    EXPECT_EQ(peek_existing_instance_holder(name_), holder_text(holder.pid()));
    holder.end();
    EXPECT_EQ(peek_existing_instance_holder(name_), std::nullopt);
}

TEST_F(EarlyInstanceLock, EverySpellingOfKillEndsTheHolderBySigterm) {
    for (Arguments const& kill :
         {Arguments{"--instance-policy", "kill"}, Arguments{"--instance-policy=kill"},
          Arguments{"--instance-policy", "2"}, Arguments{"--instance-policy=2"}}) {
        PausedChild holder(hold_lock_by_name());
        resolve(kill);
        EXPECT_EQ(holder.ending_signal(), SIGTERM);
        EXPECT_FALSE(is_held_as_others_see_it());
    }
}

TEST_F(EarlyInstanceLock, KillWithoutAHolderEndsNobodyWhateverTheFileSays) {
    PausedChild const bystander([] { return true; });
    write_lock_file(holder_text(bystander.pid()));
    resolve({"--instance-policy=kill"});
    EXPECT_TRUE(bystander.is_running());
    EXPECT_EQ(lock_file_text(), holder_text(bystander.pid()));
}

TEST_F(EarlyInstanceLock, AHolderThatIgnoresSigtermIsEndedBySigkill) {
    PausedChild holder(hold_lock_by_name(), OnTerm::ignore);
    resolve({"--instance-policy=kill"}, std::chrono::milliseconds(100));
    EXPECT_EQ(holder.ending_signal(), SIGKILL);
}

TEST_F(EarlyInstanceLock, KillGoesOnWhenTheLockStaysHeldAfterSigkill) {
    PausedChild named([] { return true; }, OnTerm::ignore);
    PausedChild const holder(hold_lock(holder_text(named.pid())));
    resolve({"--instance-policy=kill"}, std::chrono::milliseconds(100));
    EXPECT_EQ(named.ending_signal(), SIGKILL);
    EXPECT_TRUE(holder.is_running());
    EXPECT_TRUE(is_held_as_others_see_it());
}

TEST_F(EarlyInstanceLock, KillEndsNobodyWhenTheHolderNamesNoProcess) {
    for (std::string const text : {"", "nobody", "pid=abc\n", "pid=0\n"}) {
        PausedChild const holder(hold_lock(text));
        // In a process group of its own, which is all that a signal to process 0 would reach.
        EXPECT_TRUE(test::run_in_child([this] {
            setpgid(0, 0);
            resolve({"--instance-policy=kill"}, std::chrono::milliseconds(100));
            return true;
        })) << text;
        EXPECT_TRUE(holder.is_running()) << text;
    }
}

TEST_F(EarlyInstanceLock, KillDoesNotTakeANegativeNumberForAProcessGroup) {
    PausedChild const holder(
        [this] { return setpgid(0, 0) == 0 && hold_lock("pid=-" + std::to_string(getpid()))(); });
    resolve({"--instance-policy=kill"}, std::chrono::milliseconds(100));
    EXPECT_TRUE(holder.is_running());
}

TEST_F(EarlyInstanceLock, WaitReturnsSilentlyWhenTheHolderExitsAndTakesNothing) {
    PausedChild holder(hold_lock_by_name());
    test::CapturedStream const errors(std::cerr);
    test::CapturedStream const output(std::cout);
    std::atomic<bool> returned = false;
    std::thread waiter([&] {
        resolve({"--instance-policy=wait"});
        returned = true;
    });
    test::wait_until([this] { return waits_for_lock(); }, "the lock is waited for");
    EXPECT_FALSE(returned);
    std::string const text = holder_text(holder.pid());
    holder.end();
    waiter.join();
    EXPECT_FALSE(is_held_as_others_see_it());
    EXPECT_EQ(lock_file_text(), text);
    EXPECT_EQ(errors.text() + output.text(), "");
}

TEST_F(EarlyInstanceLock, WithoutAHolderWaitReturnsAtOnce) {
    resolve({"--instance-policy=wait"});
    EXPECT_FALSE(is_held_as_others_see_it());
}

TEST_F(EarlyInstanceLock, TheFileOfTheNextInstanceStays) {
    PausedChild const next(hold_lock("next"));
    remove_lock_file_if_test_suffixed(name_);
    EXPECT_EQ(lock_file_text(), "next");
    EXPECT_TRUE(is_held_as_others_see_it());
}

TEST_F(EarlyInstanceLock, TheFileIsRemovedUnderATestsSuffixOnly) {
    write_lock_file("text");
    remove_lock_file_if_test_suffixed(name_);
    EXPECT_FALSE(std::filesystem::exists(path_));

    std::string const name = "unsuffixed " + std::to_string(getpid());
    using Value = std::optional<std::string>;
    for (Value const& none : {Value(), Value("")}) {
        suffix_.set(none);
        std::string const path = make_lock_file_path(name);
        ASSERT_TRUE(write_file(path, "text", O_TRUNC));
        remove_lock_file_if_test_suffixed(name);
        EXPECT_TRUE(std::filesystem::remove(path));
    }
}

} // namespace
} // namespace tessaron::detail
