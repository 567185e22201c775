#pragma once

#include "Target.hpp"
#include "TargetStore.hpp"

#include "app/AppContext.hpp"
#include "app/ConsoleApp.hpp"
#include "app/utilities/StopEvent.hpp"
#include "bus/LocalClient.hpp"
#include "database/sqlite/DbServer.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

namespace portwatch {

/// The application: round after round it looks at all targets, writes down what it saw, and tells
/// of those that went up or down in its log and on the bus.
///
/// Life: constructed (the database is there, requests are answered) -> rounds on the main thread,
/// in `run_impl` -> a stop, a request to reboot or a crash, all of which the frame sees to.
///
/// Ownership: the context outlives it.
/// Thread safety: the rounds on the main thread; requests come on the client's own thread, and
/// share with them what the mutex guards.
/// Errors: without its database it does not start (an exception); one that cannot be read or
/// written later costs a warning a round.
class PortWatch : public tessaron::ConsoleApp<PortWatch> {
public:
    explicit PortWatch(tessaron::AppContext& context);

private:
    using Clock = std::chrono::steady_clock;
    using Bytes = tessaron::bus::LocalClient::Bytes;

    // PortWatch.cpp: the rounds, on the main thread.

    int run_impl() override;
    /// False once the application is to stop.
    bool run_round();
    void note(std::vector<Check> const& checks) TESSARON_EXCLUDES(mutex_);
    void tell_of_change(Check const& check, char const* before);
    /// Until a round is due or asked for; false once the application is to stop.
    bool wait_for_next_round(Clock::time_point last) TESSARON_EXCLUDES(mutex_);
    [[noreturn]] void crash_as_asked() TESSARON_EXCLUDES(mutex_);
    std::chrono::seconds interval();

    // PortWatch_Bus.cpp: what can be asked of it.

    void join_bus();
    Bytes answer_status() TESSARON_EXCLUDES(mutex_);
    Bytes answer_check_now() TESSARON_EXCLUDES(mutex_);
    Bytes answer_crash() TESSARON_EXCLUDES(mutex_);

    TargetStore const store_;
    std::stop_source const stop_;
    tessaron::StopEvent const stop_event_;

    tessaron::Mutex mutex_;
    std::condition_variable_any wanted_;
    bool check_wanted_ TESSARON_GUARDED_BY(mutex_) = false;
    bool crash_wanted_ TESSARON_GUARDED_BY(mutex_) = false;
    /// What the last look at each target found, by the row's id.
    std::map<std::int64_t, Check> last_ TESSARON_GUARDED_BY(mutex_);

    /// An operator's view of the database.
    tessaron::database::sqlite::DbServer const server_;
    /// Last: its handlers use all of the above, and have ended when it is gone.
    std::shared_ptr<tessaron::bus::LocalClient> client_;
};

} // namespace portwatch
