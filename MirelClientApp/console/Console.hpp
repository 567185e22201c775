#pragma once

#include "MirelClientApp/console/ConsoleExecutor.hpp"
#include "MirelClientApp/web/HandlerGate.hpp"
#include "MirelClientApp/web/http_message.hpp"

#include <chrono>
#include <stop_token>
#include <string>

namespace mirelclient {

/// The daemon's console: the live terminals, the running commands, and their end on a stop.
///
/// Ownership: must outlive the calls of its functions; terminals and commands live within them.
/// Thread safety: safe from any thread; no lock is held while a terminal or a command runs.
class Console {
public:
    /// A terminal; takes the socket over and returns when its session has ended.
    void serve_terminal(int fd, HttpRequest const& request);
    ConsoleExecutor::Result exec(std::string const& command, int timeout_seconds) const;

    /// Ends all terminals and kills all commands; from then on there are no further ones. Does not
    /// wait for them.
    void request_stop() { stop_.request_stop(); }
    /// False if a terminal still lives when `time` has passed.
    [[nodiscard]] bool wait_until_ended(std::chrono::milliseconds time) {
        return terminals_.wait_until_empty_for(time);
    }

private:
    std::stop_source stop_;
    HandlerGate terminals_{true};
};

} // namespace mirelclient
