#include "app/InstanceLock.hpp"

#include "tests/support/CapturedStream.hpp"
#include "tests/unit/app/LockFileTest.hpp"

#include <atomic>
#include <cstring>
#include <iostream>
#include <pthread.h>
#include <thread>
#include <vector>

namespace tessaron {
namespace {

using test::holder_text;
using test::OnTerm;
using test::PausedChild;

struct Said {
    LogLevel level;
    std::string text;
    bool operator==(Said const&) const = default;
};

void PrintTo(Said const& said, std::ostream* out) {
    *out << to_string(said.level) << ' ' << said.text;
}

/// A lock that is `lock_` here and that the other processes of a test see in its file.
class InstanceLockTest : public test::LockFileTest {
protected:
    InstanceLock::Report record() {
        return [this](LogLevel level, std::string const& text) { said_.push_back({level, text}); };
    }

    /// What went to the standard error stream, if it was what was reported.
    std::string said_as_lines() const {
        std::string lines;
        for (Said const& said : said_) {
            lines += said.text + "\n";
        }
        return lines;
    }

    std::string own_text() const {
        return "pid=" + std::to_string(getpid()) + "\npath=/opt/keeper\nuser=me\n";
    }

    /// The descriptors of this process that are open on the lock file.
    std::vector<int> descriptors_on_lock_file() const {
        std::vector<int> found;
        for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code ignored;
            if (std::filesystem::read_symlink(entry.path(), ignored) == path_) {
                found.push_back(std::stoi(entry.path().filename().string()));
            }
        }
        return found;
    }

    Said failed_to_open() const {
        return {LogLevel::ERROR,
                "Failed to open lock file " + path_ + ": " + std::strerror(EISDIR)};
    }

    std::vector<Said> said_;
    test::CapturedStream errors_{std::cerr};
    InstanceLock lock_{name_, "/opt/keeper", "me", record()};
};

TEST_F(InstanceLockTest, HeldItTellsWhoHoldsItAndOthersSeeIt) {
    EXPECT_FALSE(lock_.is_held());
    lock_.acquire_single_instance_lock();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), "");
    EXPECT_EQ(lock_file_text(), own_text());
    EXPECT_TRUE(is_held_as_others_see_it());
    EXPECT_TRUE(test::run_in_child([this, text = own_text()] {
        return detail::peek_existing_instance_holder(name_) == text;
    }));
    EXPECT_TRUE(said_.empty());
}

TEST_F(InstanceLockTest, StaleTextOfAnotherProcessIsReplacedWhole) {
    PausedChild const bystander([] { return true; });
    write_lock_file(holder_text(bystander.pid()) + std::string(1000, 'x'));
    lock_.acquire_single_instance_lock();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(lock_file_text(), own_text());
    EXPECT_TRUE(bystander.is_running());
}

TEST_F(InstanceLockTest, ItsDescriptorIsClosedOnExec) {
    lock_.acquire_single_instance_lock();
    std::vector<int> const descriptors = descriptors_on_lock_file();
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_EQ(fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(InstanceLockTest, AnotherHoldersTextIsReadAndLeftAlone) {
    std::string const text = holder_text(1) + std::string(600, 'x');
    PausedChild const holder(hold_lock(text));
    lock_.acquire_single_instance_lock();
    EXPECT_FALSE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), text);
    EXPECT_EQ(lock_file_text(), text);
    EXPECT_TRUE(descriptors_on_lock_file().empty());
    EXPECT_TRUE(said_.empty());
}

TEST_F(InstanceLockTest, ASecondTryAfterTheHoldersEndSucceedsAndForgetsItsText) {
    PausedChild holder(hold_lock_by_name());
    lock_.acquire_single_instance_lock();
    EXPECT_EQ(lock_.holder_info(), holder_text(holder.pid()));
    holder.end();
    lock_.acquire_single_instance_lock();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), "");
    EXPECT_EQ(lock_file_text(), own_text());
}

TEST_F(InstanceLockTest, AHeldLockStaysAsItIsWhateverIsAskedFor) {
    lock_.acquire_single_instance_lock();
    lock_.acquire_single_instance_lock();
    lock_.wait_for_single_instance();
    lock_.kill_existing_instance_and_wait();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_TRUE(is_held_as_others_see_it());
    EXPECT_TRUE(said_.empty());
}

TEST_F(InstanceLockTest, AFileThatCannotBeOpenedIsReported) {
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    lock_.acquire_single_instance_lock();
    EXPECT_FALSE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), "");
    EXPECT_EQ(said_, std::vector<Said>{failed_to_open()});
    EXPECT_EQ(errors_.text(), said_as_lines());
}

TEST_F(InstanceLockTest, WaitGivesUpWhereTheFileCannotBeOpened) {
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    lock_.wait_for_single_instance();
    EXPECT_FALSE(lock_.is_held());
    EXPECT_EQ(said_, (std::vector<Said>{{LogLevel::WARNING, "\"lock test\" is already running\n"
                                                            "Waiting for it to exit..."},
                                        failed_to_open()}));
    EXPECT_EQ(errors_.text(), said_as_lines());
}

TEST_F(InstanceLockTest, WithoutAReportTheStandardErrorStreamIsToldAlone) {
    ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
    InstanceLock lock(name_, "", "", nullptr);
    lock.acquire_single_instance_lock();
    EXPECT_EQ(errors_.text(), failed_to_open().text + "\n");
}

TEST_F(InstanceLockTest, AFileThatWasDeletedMeanwhileIsNoLock) {
    PausedChild holder(hold_lock_by_name());
    lock_.acquire_single_instance_lock();
    std::thread waiter([this] { lock_.wait_for_single_instance(); });
    test::wait_until([this] { return waits_for_lock(); }, "the lock is waited for");
    ASSERT_TRUE(std::filesystem::remove(path_)); // as an instance under a test's suffix does
    holder.end();
    waiter.join();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(lock_file_text(), own_text());
    EXPECT_TRUE(is_held_as_others_see_it());
}

TEST_F(InstanceLockTest, WaitTakesTheLockWhenTheHolderExits) {
    PausedChild holder(hold_lock_by_name());
    lock_.acquire_single_instance_lock();
    std::atomic<bool> returned = false;
    std::thread waiter([&] {
        lock_.wait_for_single_instance();
        returned = true;
    });
    test::wait_until([this] { return waits_for_lock(); }, "the lock is waited for");
    EXPECT_FALSE(returned);
    holder.end();
    waiter.join();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), "");
    EXPECT_EQ(lock_file_text(), own_text());
    EXPECT_TRUE(is_held_as_others_see_it());
    EXPECT_EQ(said_, (std::vector<Said>{{LogLevel::WARNING, "\"lock test\" is already running:\n" +
                                                                holder_text(holder.pid()) +
                                                                "\nWaiting for it to exit..."}}));
    EXPECT_EQ(errors_.text(), said_as_lines());
}

/// True while a signal for the thread has not reached it.
bool has_pending_signal(pid_t thread) {
    std::string const status =
        read_file("/proc/self/task/" + std::to_string(thread) + "/status").value_or("");
    return status.find("\nSigPnd:\t0000000000000000\n") == std::string::npos;
}

TEST_F(InstanceLockTest, AWaitThatASignalInterruptsGoesOn) {
    struct sigaction interrupt {}; // Without SA_RESTART: system calls end with EINTR.
    struct sigaction former {};
    interrupt.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &former), 0);
    PausedChild holder(hold_lock_by_name());
    std::atomic<pid_t> thread = 0;
    std::thread waiter([&] {
        thread = gettid();
        lock_.wait_for_single_instance();
    });
    test::wait_until([this] { return waits_for_lock(); }, "the lock is waited for");
    pthread_kill(waiter.native_handle(), SIGUSR1);
    test::wait_until([&] { return !has_pending_signal(thread); }, "the signal has arrived");
    test::wait_until([this] { return waits_for_lock(); }, "the lock is waited for again");
    holder.end();
    waiter.join();
    EXPECT_TRUE(lock_.is_held());
    sigaction(SIGUSR1, &former, nullptr);
}

TEST_F(InstanceLockTest, KillEndsTheHolderBySigtermAndTakesTheLock) {
    PausedChild holder(hold_lock_by_name());
    lock_.acquire_single_instance_lock();
    lock_.kill_existing_instance_and_wait();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(holder.ending_signal(), SIGTERM);
    EXPECT_EQ(lock_file_text(), own_text());
    EXPECT_EQ(said_,
              (std::vector<Said>{{LogLevel::WARNING, "--instance-policy=kill: terminating pid " +
                                                         std::to_string(holder.pid()) +
                                                         " (was holding \"lock test\"'s lock)"}}));
    EXPECT_EQ(errors_.text(), said_as_lines());
}

TEST_F(InstanceLockTest, AHolderThatIgnoresSigtermIsEndedBySigkillAfterThreeSeconds) {
    PausedChild holder(hold_lock_by_name(), OnTerm::ignore);
    std::string const pid = std::to_string(holder.pid());
    lock_.acquire_single_instance_lock();
    lock_.kill_existing_instance_and_wait();
    EXPECT_TRUE(lock_.is_held());
    EXPECT_EQ(holder.ending_signal(), SIGKILL);
    EXPECT_EQ(
        said_,
        (std::vector<Said>{
            {LogLevel::WARNING, "--instance-policy=kill: terminating pid " + pid +
                                    " (was holding \"lock test\"'s lock)"},
            {LogLevel::WARNING, "--instance-policy=kill: pid " + pid +
                                    " didn't exit within 3s of SIGTERM, sending SIGKILL"},
            {LogLevel::WARNING, "\"lock test\" is already running:\n" + holder_text(holder.pid()) +
                                    "\nWaiting for it to exit..."},
        }));
    EXPECT_EQ(errors_.text(), said_as_lines());
}

TEST_F(InstanceLockTest, AHolderWithoutAProcessIdIsNotKilled) {
    for (std::string const text : {"", "nobody\n"}) {
        said_.clear();
        PausedChild const holder(hold_lock(text));
        lock_.acquire_single_instance_lock();
        lock_.kill_existing_instance_and_wait();
        EXPECT_FALSE(lock_.is_held());
        EXPECT_TRUE(holder.is_running());
        EXPECT_EQ(said_, (std::vector<Said>{
                             {LogLevel::ERROR,
                              "--instance-policy=kill: couldn't find a pid= line in the current "
                              "holder's info, not killing anything:\n" +
                                  text}}));
    }
}

TEST_F(InstanceLockTest, AHolderWhoseProcessIdIsNoneIsNotKilled) {
    PausedChild const bystander([] { return setpgid(0, 0) == 0; });
    std::string const group = "pid=-" + std::to_string(bystander.pid()) + "\n";
    for (std::string const& text : {std::string("pid=abc\n"), std::string("pid=0\n"), group}) {
        PausedChild const holder(hold_lock(text));
        // In a process group of its own, which is all that a signal to process 0 would reach.
        EXPECT_TRUE(test::run_in_child([&] {
            setpgid(0, 0);
            alarm(30); // Were it to kill and then to wait, it would do so for ever.
            lock_.acquire_single_instance_lock();
            lock_.kill_existing_instance_and_wait();
            EXPECT_EQ(said_, (std::vector<Said>{
                                 {LogLevel::ERROR,
                                  "--instance-policy=kill: couldn't parse a pid from the current "
                                  "holder's info, not killing anything:\n" +
                                      text}}));
            EXPECT_EQ(errors_.text(), said_as_lines());
            return !lock_.is_held() && !HasFailure();
        })) << text;
        EXPECT_TRUE(holder.is_running()) << text;
        EXPECT_TRUE(bystander.is_running()) << text;
    }
}

TEST_F(InstanceLockTest, ReleasedItIsFreeThoughAForkedChildSharesTheDescriptor) {
    lock_.acquire_single_instance_lock();
    PausedChild const child([this] { return descriptors_on_lock_file().size() == 1; });
    EXPECT_TRUE(is_held_as_others_see_it());
    lock_.release_signal_safe();
    EXPECT_FALSE(lock_.is_held());
    EXPECT_TRUE(child.is_running());
    EXPECT_FALSE(is_held_as_others_see_it());
    EXPECT_TRUE(descriptors_on_lock_file().empty());
}

TEST_F(InstanceLockTest, AChildThatOutlivesAKilledHolderForAMomentIsOutwaited) {
    PausedChild dead([] { return true; });
    dead.end();
    PausedChild child(hold_lock(test::holder_text(dead.pid())));
    std::thread ending([&] {
        test::wait_until([this] { return !descriptors_on_lock_file().empty(); }, "it tries");
        child.end();
    });
    lock_.acquire_single_instance_lock();
    ending.join();
    EXPECT_TRUE(lock_.is_held());
}

TEST_F(InstanceLockTest, AChildOfADeadHolderThatKeepsTheLockIsReportedInTheEnd) {
    PausedChild dead([] { return true; });
    dead.end();
    PausedChild const child(hold_lock(test::holder_text(dead.pid())));
    lock_.acquire_single_instance_lock();
    EXPECT_FALSE(lock_.is_held());
    EXPECT_EQ(lock_.holder_info(), test::holder_text(dead.pid()));
    EXPECT_EQ(detail::peek_existing_instance_holder(name_), test::holder_text(dead.pid()));
}

TEST_F(InstanceLockTest, ReleasingTwiceOrWithoutHoldingDoesNothing) {
    PausedChild const holder(hold_lock_by_name());
    lock_.release_signal_safe();
    lock_.acquire_single_instance_lock();
    lock_.release_signal_safe();
    EXPECT_TRUE(is_held_as_others_see_it());
}

TEST_F(InstanceLockTest, ReleaseLeavesErrnoAlone) {
    lock_.acquire_single_instance_lock();
    errno = EXDEV;
    lock_.release_signal_safe();
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(InstanceLockTest, ItEndsWithTheObjectAndLeavesTheFile) {
    {
        InstanceLock lock(name_, "/opt/keeper", "me", nullptr);
        lock.acquire_single_instance_lock();
        EXPECT_TRUE(is_held_as_others_see_it());
    }
    EXPECT_FALSE(is_held_as_others_see_it());
    EXPECT_EQ(lock_file_text(), own_text());
}

} // namespace
} // namespace tessaron
