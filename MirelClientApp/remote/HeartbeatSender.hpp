#pragma once

#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

namespace mirelclient {

class RegistryClient;

/// Tells the registry server every so often that this machine exists and where its web API can be
/// found: one POST through the system's `curl` per beat, to the server that the `RegistryClient`
/// names at that moment. What becomes of a beat is neither retried nor reported.
///
/// Ownership: its thread; the `RegistryClient` must outlive the object, whose destructor stops.
/// Thread safety: `start` and `stop` one thread at a time, the caller's duty.
/// Errors: `std::system_error` from `start` if there is no thread to be had.
class HeartbeatSender {
public:
    /// What an interval below one second stands for.
    static constexpr std::chrono::seconds K_DEFAULT_INTERVAL{30};

    HeartbeatSender(RegistryClient const& registry, std::string client_name,
                    std::string advertise_addr, long long interval_seconds);
    ~HeartbeatSender();
    HeartbeatSender(HeartbeatSender const&) = delete;
    HeartbeatSender& operator=(HeartbeatSender const&) = delete;

    /// The first beat goes out at once. Without an address to tell there is nothing to do; a sender
    /// that runs already is left alone.
    void start();
    /// Ends a beat that is under way. May be repeated.
    void stop();

    std::chrono::seconds interval() const noexcept { return interval_; }

    /// Puts a backslash before quotes and backslashes, and changes nothing else.
    static std::string json_escape(std::string_view text);
    /// What a beat runs in the shell.
    static std::string beat_command(std::string const& base_url, std::string const& client_name,
                                    std::string const& advertise_addr);

private:
    void run(std::stop_token const& stop) TESSARON_EXCLUDES(mutex_);
    void send_once(std::stop_token const& stop) const;

    RegistryClient const& registry_;
    std::string const client_name_;
    std::string const advertise_addr_;
    std::chrono::seconds const interval_;
    std::atomic<bool> running_{false};
    std::stop_source stop_;
    std::thread thread_;
    tessaron::Mutex mutex_; ///< Guards nothing but the wait.
    std::condition_variable_any stopped_;
};

} // namespace mirelclient
