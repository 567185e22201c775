#pragma once

#include "MirelClientApp/remote/ErrorText.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <optional>
#include <set>
#include <stop_token>
#include <string>

namespace mirelclient {

/// The daemon's way to the registry server: builds the URLs of its package API and runs the
/// system's `curl` for each transfer. Names, channels, versions and architectures go into URLs as
/// they stand, without percent-encoding. Nothing is logged and nothing is tried twice.
///
/// Mind the two kinds of result: a body is a value on success, an `ErrorText` a value on failure.
///
/// Ownership: none; a transfer is a child process that ends within the call.
/// Thread safety: safe from any thread; one internal lock, never held during a transfer.
/// Errors: an empty body, or the error's text. A transfer has no time-out: a server that hangs
/// holds the calling thread until `request_stop`.
class RegistryClient {
public:
    /// The server's URL without a trailing slash.
    explicit RegistryClient(std::string base_url);

    std::string base_url() const TESSARON_EXCLUDES(mutex_);
    /// For the transfers that start from now on; one in progress goes on with the old server.
    void set_base_url(std::string base_url) TESSARON_EXCLUDES(mutex_);
    /// Ends the transfers in progress as failed, and makes all later ones fail.
    void request_stop();

    /// Prefix of one build's files.
    std::string package_url(std::string const& name, std::string const& channel,
                            std::string const& version, std::string const& arch) const;

    /// The three listings give the body as the server sent it.
    [[nodiscard]] std::optional<std::string> list_packages() const;
    [[nodiscard]] std::optional<std::string> list_channels(std::string const& name) const;
    [[nodiscard]] std::optional<std::string> list_versions(std::string const& name,
                                                           std::string const& channel) const;

    /// Fetches a build's artifact as `download` does. While another call fetches to the same
    /// destination, it waits for that one to end.
    [[nodiscard]] ErrorText fetch_artifact(std::string const& name, std::string const& channel,
                                           std::string const& version, std::string const& arch,
                                           std::string const& destination_path) const;

    /// The body of a successful answer, which may be empty; nothing on a failure of any kind.
    [[nodiscard]] static std::optional<std::string> fetch_body(std::string const& url,
                                                               std::stop_token const& stop = {});

    /// Fetches into `destination_path` + ".tmp" and renames: the destination is always a whole
    /// file, the previous one until then. A failed transfer removes the temporary file, a failed
    /// rename leaves it. Two at once to one destination would share that file: keeping them apart
    /// is the caller's duty.
    [[nodiscard]] static ErrorText download(std::string const& url,
                                            std::string const& destination_path,
                                            std::stop_token const& stop = {});

private:
    class HeldDestination;

    mutable tessaron::Mutex mutex_;
    std::string base_url_ TESSARON_GUARDED_BY(mutex_);
    /// What artifacts are being fetched to.
    mutable std::set<std::string> destinations_ TESSARON_GUARDED_BY(mutex_);
    mutable std::condition_variable_any destination_freed_;
    std::stop_source stop_;
};

} // namespace mirelclient
