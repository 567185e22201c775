#include "MirelClientApp/remote/HeartbeatSender.hpp"

#include "MirelClientApp/remote/RegistryClient.hpp"
#include "app/utilities/shell_command.hpp"
#include "app/utilities/shell_quote.hpp"
#include "libraries/threads/start_thread.hpp"

#include <algorithm>
#include <exception>
#include <tuple>
#include <utility>

namespace mirelclient {

using tessaron::MutexLock;
using tessaron::shell_quote;

namespace {

/// Longer waits would overflow the clock; nobody sees the difference.
constexpr std::chrono::seconds K_LONGEST_INTERVAL = std::chrono::hours(24 * 365 * 50);

std::chrono::seconds usable_interval(long long seconds) {
    return seconds < 1 ? HeartbeatSender::K_DEFAULT_INTERVAL
                       : std::min(std::chrono::seconds(seconds), K_LONGEST_INTERVAL);
}

} // namespace

HeartbeatSender::HeartbeatSender(RegistryClient const& registry, std::string client_name,
                                 std::string advertise_addr, long long interval_seconds)
    : registry_(registry), client_name_(std::move(client_name)),
      advertise_addr_(std::move(advertise_addr)), interval_(usable_interval(interval_seconds)) {
}

HeartbeatSender::~HeartbeatSender() {
    stop();
}

void HeartbeatSender::start() {
    if (advertise_addr_.empty() || running_.exchange(true)) {
        return;
    }
    stop_ = std::stop_source();
    thread_ = tessaron::start_thread("heartbeat", [this, stop = stop_.get_token()] { run(stop); });
}

void HeartbeatSender::stop() {
    if (!running_.exchange(false)) {
        return;
    }
    stop_.request_stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void HeartbeatSender::run(std::stop_token const& stop) {
    while (!stop.stop_requested()) {
        try {
            send_once(stop);
        } catch (std::exception const&) {
            // Out of memory for this one; the next may fare better.
        }
        MutexLock lock(mutex_);
        stopped_.wait_for(lock.native(), stop, interval_, [] { return false; });
    }
}

void HeartbeatSender::send_once(std::stop_token const& stop) const {
    // A beat that was lost is made up for by the next one.
    std::ignore = tessaron::run_shell(
        beat_command(registry_.base_url(), client_name_, advertise_addr_), stop);
}

std::string HeartbeatSender::beat_command(std::string const& base_url,
                                          std::string const& client_name,
                                          std::string const& advertise_addr) {
    std::string const body = "{\"name\":\"" + json_escape(client_name) + "\",\"address\":\"" +
                             json_escape(advertise_addr) + "\"}";
    std::string const url = base_url + "/api/clients/heartbeat";
    return "curl -fsS -m 5 -X POST -H 'Content-Type: application/json' -d '" + shell_quote(body) +
           "' '" + shell_quote(url) + "' >/dev/null 2>&1";
}

std::string HeartbeatSender::json_escape(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char const c : text) {
        if (c == '"' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

} // namespace mirelclient
