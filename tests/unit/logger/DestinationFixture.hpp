#pragma once

#include "tests/unit/logger/LoggerFixture.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

namespace tessaron::test {

/// A logger whose file is about to be redirected, lost, found again or rotated.
class DestinationFixture : public LoggerFixture {
protected:
    /// No directory can be made where a file stands, not even by root.
    void block_directory() {
        std::filesystem::remove_all(log_directory);
        put_file(log_directory, "in the way");
    }
    void unblock_directory() { std::filesystem::remove(log_directory); }

    std::string redirecting() const { return "Redirecting log output to '" + path + "'"; }
    std::string could_not_open() const {
        return "Could not open '" + path + "' - falling back to '" + fallback_path + "'";
    }
    std::string recovered() const {
        return "Recovered '" + path + "' - migrated buffered lines from '" + fallback_path +
               "' here";
    }
    std::string lost() const {
        return "Lost '" + path + "' mid-run - falling back to '" + fallback_path + "'";
    }
    void redirect() {
        ASSERT_TRUE(logger.redirect_to_file(path));
        logger.flush();
    }
    /// Logs one line that makes the file exactly `size` bytes long.
    void fill_up_to(std::uint64_t size) {
        std::uint64_t const line = logger.stats().file_size_bytes;
        std::string const overhead = "[" + label + "] [INFO] [" + clock.time_stamp() + "] " + "\n";
        log(std::string(size - line - overhead.size(), 'x'));
    }
};

} // namespace tessaron::test
