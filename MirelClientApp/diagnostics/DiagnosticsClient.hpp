#pragma once

#include "MirelClientApp/diagnostics/network_lookup.hpp"
#include "app/AppControlClient.hpp"
#include "bus/Hub.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/network_map.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

namespace mirelclient {

/// Finds the applications of packages on the bus, and asks them: an application's node is called
/// like its package. What a package is to the package manager plays no part.
///
/// A thread looks around again and again, and keeps the last map of the network that somebody
/// answered with; until then nobody is known. Nothing else is kept, every question goes to the
/// application anew.
///
/// Ownership: a node of its own; the hub must outlive it.
/// Thread safety: safe from any thread, but not from handlers of the bus. Questions are asked one
/// at a time, since they share their targets: one that is not answered holds up those behind it
/// for the time that its caller gave it.
/// Errors: none; who is not known, does not answer or cannot be understood is an empty result.
class DiagnosticsClient {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// Between two looks, by parts of whole seconds, of which nothing is left: a look follows the
    /// other, and what paces them is the time that each takes.
    static constexpr std::chrono::seconds K_DISCOVERY_INTERVAL{5};
    static constexpr Milliseconds K_DISCOVERY_TIMEOUT{800};

    /// `address` was claimed for this client.
    DiagnosticsClient(tessaron::bus::Hub& hub, std::uint32_t address);
    ~DiagnosticsClient();
    DiagnosticsClient(DiagnosticsClient const&) = delete;
    DiagnosticsClient& operator=(DiagnosticsClient const&) = delete;

    /// Calls `function` with a client that asks this package's application, and returns what it
    /// does, an optional; nothing, if the application is not known.
    template <typename Function>
    std::invoke_result_t<Function const&, tessaron::AppControlClient&>
    with_package(std::string const& package, Function const& function)
        TESSARON_EXCLUDES(asking_mutex_) {
        MutexLock lock(asking_mutex_);
        if (!aim_at_locked(package)) {
            return std::nullopt;
        }
        return function(*client_);
    }

    /// As of the last look around; does not ask.
    bool is_discovered(std::string const& package) const {
        return hub_location(package).has_value();
    }
    std::optional<HubLocation> hub_location(std::string const& package) const
        TESSARON_EXCLUDES(snapshot_mutex_);
    /// Whether the application's node, or a module of it, is at this address.
    bool hub_owns_address(std::string const& package, std::uint32_t address) const
        TESSARON_EXCLUDES(snapshot_mutex_);

    /// For a stop: questions under way end at once, unanswered, as do further ones.
    void request_stop();

private:
    using MutexLock = tessaron::MutexLock;

    void discovery_loop();
    void look_around() TESSARON_EXCLUDES(snapshot_mutex_);
    bool aim_at_locked(std::string const& package) TESSARON_REQUIRES(asking_mutex_);

    std::uint32_t const own_domain_;
    std::shared_ptr<tessaron::AppControlClient> const client_;
    std::atomic<bool> stop_{false};

    /// Guards the client's targets, from setting them to the answer.
    tessaron::Mutex asking_mutex_;
    /// Apart from the other, which is held as long as an application hesitates: looking somebody up
    /// takes no time. It may be taken under that one.
    mutable tessaron::Mutex snapshot_mutex_;
    std::optional<proto::bus::NetworkDomain> snapshot_ TESSARON_GUARDED_BY(snapshot_mutex_);

    std::thread thread_; ///< Last: it uses all of the above.
};

} // namespace mirelclient
