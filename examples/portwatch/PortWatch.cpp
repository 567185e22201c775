// The rounds: on the main thread, but for the stop hook, which runs on the thread that asks for a
// stop.

#include "PortWatch.hpp"

#include "Probe.hpp"
#include "config_fields.hpp"

#include "app/utilities/fs_tools.hpp"
#include "bus/Envelope.hpp"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <tuple>
#include <utility>

namespace portwatch {

using tessaron::LogLevel;
using tessaron::MutexLock;

namespace {

/// The longest wait without a look at the settings, of which an operator may change any.
constexpr std::chrono::seconds K_LOOK_AT_SETTINGS{1};

/// Whoever asked for a crash is told that it will come.
constexpr std::chrono::milliseconds K_TIME_FOR_AN_ANSWER{200};

/// In seconds: what an operator may set, lest times overflow.
constexpr long long K_A_YEAR = 365LL * 24 * 3600;

constexpr char K_DATABASE_NAME[] = "portwatch.targets";

/// Where the frame keeps sessions, crashes and settings of this application, too.
std::string database_path(tessaron::AppContext const& context) {
    namespace fs_tools = tessaron::fs_tools;
    return fs_tools::join_path(fs_tools::join_path(context.app_dir(), context.app_name()),
                               "portwatch.db");
}

char const* state_text(bool up) {
    return up ? "up" : "down";
}

} // namespace

PortWatch::PortWatch(tessaron::AppContext& context)
    : ConsoleApp(context), store_(database_path(context)), stop_event_(stop_.get_token()),
      server_(context.hub(), K_DATABASE_NAME, store_.path()) {
    // The hook owns what it touches: a second stop signal may come while all of this is going.
    set_stop_hook([stop = stop_]() mutable { stop.request_stop(); });
    join_bus();
}

int PortWatch::run_impl() {
    // A stop that was asked for before there was a hook has not reached it.
    bool go_on = !wait_until_stopped_for(std::chrono::milliseconds(0));
    while (go_on) {
        auto const began = Clock::now();
        go_on = run_round() && wait_for_next_round(began);
    }
    return 0;
}

bool PortWatch::run_round() {
    auto& config = context().config();
    std::chrono::milliseconds const timeout(
        std::clamp(config.as_int(K_CONNECT_TIMEOUT_MS), 1LL, K_A_YEAR * 1000));
    try {
        auto const checks = probe(store_.targets(), timeout, stop_event_.descriptor());
        if (!checks) {
            return false;
        }
        note(*checks);
        store_.record(*checks, std::max(0LL, config.as_int(K_KEEP_CHECKS)));
    } catch (std::exception const& error) {
        context().log().log(LogLevel::WARNING, "no round with ", store_.path(), ": ", error.what());
    }
    return true;
}

void PortWatch::note(std::vector<Check> const& checks) {
    std::map<std::int64_t, Check> now;
    for (Check const& check : checks) {
        now.emplace(check.target.id, check);
    }
    std::map<std::int64_t, Check> before;
    {
        MutexLock lock(mutex_);
        before = std::exchange(last_, now);
    }
    for (auto const& [id, check] : now) {
        context().log().log(LogLevel::TRACE, check.target.text(), " is ", state_text(check.up),
                            " after ", check.took.count(), " ms", check.error.empty() ? "" : ": ",
                            check.error);
        auto const found = before.find(id);
        // A row that was sent elsewhere is another target, of which nothing is known.
        bool const known =
            found != before.end() && found->second.target.is_at_place_of(check.target);
        if (!known) {
            tell_of_change(check, "unknown");
        } else if (found->second.up != check.up) {
            tell_of_change(check, state_text(found->second.up));
        }
    }
}

void PortWatch::tell_of_change(Check const& check, char const* before) {
    if (check.up) {
        context().log().log(LogLevel::INFO, check.target.text(), " is up");
    } else {
        context().log().log(LogLevel::WARNING, check.target.text(), " is down: ", check.error);
    }
    tessaron::bus::Envelope event;
    event.fields = {{"id", std::to_string(check.target.id)},
                    {"host", check.target.host},
                    {"port", check.target.port},
                    {"label", check.target.label},
                    {"state", state_text(check.up)},
                    {"before", before},
                    {"error", check.error}};
    client_->publish("portwatch.changed", event);
}

bool PortWatch::wait_for_next_round(Clock::time_point last) {
    auto const asked = [this]()
                           TESSARON_REQUIRES(mutex_) { return check_wanted_ || crash_wanted_; };
    while (!stop_.stop_requested()) {
        auto const due = last + interval(); // an operator may have changed it
        if (Clock::now() >= due) {
            return true;
        }
        MutexLock lock(mutex_);
        wanted_.wait_until(lock.native(), stop_.get_token(),
                           std::min<Clock::time_point>(due, Clock::now() + K_LOOK_AT_SETTINGS),
                           asked);
        if (crash_wanted_) {
            lock.unlock();
            crash_as_asked();
        }
        if (std::exchange(check_wanted_, false)) {
            return !stop_.stop_requested();
        }
    }
    return false;
}

/// A function of its own, to be seen in the crash record.
[[gnu::noinline]] void PortWatch::crash_as_asked() {
    std::ignore = wait_until_stopped_for(K_TIME_FOR_AN_ANSWER);
    std::abort();
}

std::chrono::seconds PortWatch::interval() {
    return std::chrono::seconds(
        std::clamp(context().config().as_int(K_INTERVAL_SECONDS), 1LL, K_A_YEAR));
}

} // namespace portwatch
