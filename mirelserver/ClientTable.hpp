#pragma once

#include "libraries/vocabulary/Mutex.hpp"
#include "mirelserver/Channel.hpp"

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirelserver {

/// A way to open streams to one machine.
class IStreamOpener {
public:
    IStreamOpener() = default;
    IStreamOpener(IStreamOpener const&) = delete;
    IStreamOpener& operator=(IStreamOpener const&) = delete;
    virtual ~IStreamOpener() = default;

    /// Never null; a stream that cannot be opened reads as one that has ended. From any thread.
    virtual std::shared_ptr<Channel> open(std::string target) = 0;
    /// From any thread.
    virtual void close() = 0;
};

/// Whether a machine may have this name: it is one segment of a URL's path, and valid UTF-8 without
/// control characters, since it stands in lists.
bool is_client_name(std::string_view name);
/// Whether it may be advertised; an empty one says that there is none.
bool is_client_address(std::string_view address);

/// The machines that this server knows: by their heartbeats, by their tunnels, or by both.
///
/// A machine that is not heard of any more stays listed until its place is needed: the one that
/// has been silent for longest and has no tunnel makes room for a new one.
///
/// Ownership: shares the tunnels until they detach.
/// Thread safety: safe from any thread; one internal lock, never held while a tunnel is called.
/// Errors: false for a name or an address that cannot be, and when every place has a tunnel.
class ClientTable {
public:
    using Clock = std::chrono::steady_clock;
    using Tunnel = std::shared_ptr<IStreamOpener>;

    static constexpr std::size_t K_MAX_CLIENTS = 4096;
    static constexpr std::size_t K_MAX_NAME_SIZE = 128;
    static constexpr std::size_t K_MAX_ADDRESS_SIZE = 256;

    struct Client {
        std::string name;
        std::string address; ///< As advertised; empty if never.
        std::chrono::seconds age{};
        Tunnel tunnel; ///< Null if it has none.
    };

    [[nodiscard]] bool heard(std::string const& name, std::string const& address,
                             Clock::time_point now) TESSARON_EXCLUDES(mutex_);
    /// Takes the place of the machine's earlier tunnel, which is closed.
    [[nodiscard]] bool attach(std::string const& name, Tunnel tunnel, Clock::time_point now)
        TESSARON_EXCLUDES(mutex_);
    /// Changes nothing if the machine has another tunnel by now.
    void detach(std::string const& name, IStreamOpener const* tunnel, Clock::time_point now)
        TESSARON_EXCLUDES(mutex_);

    /// Closes all tunnels; they detach by themselves.
    void close_tunnels() TESSARON_EXCLUDES(mutex_);

    std::optional<Client> find(std::string const& name, Clock::time_point now) const
        TESSARON_EXCLUDES(mutex_);
    /// By name.
    std::vector<Client> list(Clock::time_point now) const TESSARON_EXCLUDES(mutex_);

private:
    struct Entry {
        std::string address;
        Clock::time_point last_heard;
        Tunnel tunnel;
    };

    Entry* entry_for_locked(std::string const& name) TESSARON_REQUIRES(mutex_);

    mutable tessaron::Mutex mutex_;
    std::map<std::string, Entry> entries_ TESSARON_GUARDED_BY(mutex_);
};

} // namespace mirelserver
