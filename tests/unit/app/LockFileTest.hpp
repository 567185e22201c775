#pragma once

#include "app/instance_lock.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/support/wait_until.hpp"
#include "tests/unit/app/PausedChild.hpp"
#include "tests/unit/app/utilities/EnvironmentVariable.hpp"
#include "tests/unit/app/utilities/run_in_child.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>

namespace tessaron::test {

/// "pid=<id>" and the lines that follow it, as the process `pid` writes them.
inline std::string holder_text(pid_t pid) {
    return "pid=" + std::to_string(pid) + "\npath=/opt/other\nuser=somebody\n";
}

/// A lock file of the test's own, which is gone afterwards.
class LockFileTest : public testing::Test {
protected:
    LockFileTest()
        : suffix_("CONSOLE_APP_LOCK_SUFFIX", "unit_test_" + std::to_string(getpid())),
          path_(detail::make_lock_file_path(name_)) {}
    ~LockFileTest() override {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }

    void write_lock_file(std::string const& text) const {
        ASSERT_TRUE(write_file(path_, text, O_TRUNC));
    }

    std::string lock_file_text() const { return read_file(path_).value_or("cannot be read"); }

    /// What a child is to do that holds the lock and says `text` of itself.
    std::function<bool()> hold_lock(std::string text) const {
        return [path = path_, text = std::move(text)] { return take_lock(path, text); };
    }

    /// The same with the text that its process id gives.
    std::function<bool()> hold_lock_by_name() const {
        return [path = path_] { return take_lock(path, holder_text(getpid())); };
    }

    bool is_held_as_others_see_it() const {
        return run_in_child([this] {
            UniqueFd const file = open_file(path_, O_RDWR);
            return file.is_open() && flock(file.get(), LOCK_EX | LOCK_NB) != 0;
        });
    }

    /// True while this process is asleep in a blocking `flock` of the lock file.
    bool waits_for_lock() const {
        struct stat file {};
        EXPECT_EQ(stat(path_.c_str(), &file), 0);
        std::string const inode = ":" + std::to_string(file.st_ino) + " ";
        std::istringstream locks(read_file("/proc/locks").value_or(""));
        for (std::string line; std::getline(locks, line);) {
            if (line.find("-> FLOCK") != std::string::npos &&
                line.find(inode) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    std::string const name_ = "lock test";
    EnvironmentVariable suffix_;
    std::string const path_;

private:
    static bool take_lock(std::string const& path, std::string const& text) {
        int const fd = open_file(path, O_RDWR | O_CREAT).release(); // Until the process ends.
        return flock(fd, LOCK_EX | LOCK_NB) == 0 && ftruncate(fd, 0) == 0 && write_all(fd, text);
    }
};

} // namespace tessaron::test
