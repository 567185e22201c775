#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace tessaron::test {

/// Waits for a condition instead of for a time; false, with a failure naming `what`, when it does
/// not come true within the deadline.
template <typename Predicate>
bool wait_until(Predicate predicate, std::string const& what,
                std::chrono::milliseconds deadline = std::chrono::seconds(20)) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end) {
            ADD_FAILURE() << "waited in vain until " << what;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace tessaron::test
