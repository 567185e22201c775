#include "MirelClientApp/remote/RegistryClient.hpp"

#include "app/utilities/shell_command.hpp"
#include "app/utilities/shell_quote.hpp"

#include <cstdio>
#include <utility>

namespace mirelclient {

namespace {

using tessaron::MutexLock;
using tessaron::shell_quote;

// -f makes an HTTP error a failing exit, so that no error page passes for a body; -sS silences the
// progress meter and keeps the error's text on the inherited standard error stream.
std::string fetch_command(std::string const& url) {
    return "curl -fsS '" + shell_quote(url) + "'";
}

std::string download_command(std::string const& url, std::string const& file) {
    return "curl -fsS -o '" + shell_quote(file) + "' '" + shell_quote(url) + "'";
}

std::string download_failure(std::string const& url) {
    return "download failed: " + url;
}

} // namespace

/// One destination, for the one call that may write it. Any other call that wants it waits.
class RegistryClient::HeldDestination {
public:
    HeldDestination(RegistryClient const& client, std::string const& path)
        : client_(client), path_(path) {
        MutexLock lock(client_.mutex_);
        is_held_ = client_.destination_freed_.wait(
            lock.native(), client_.stop_.get_token(), [this]() TESSARON_REQUIRES(client_.mutex_) {
                return client_.destinations_.insert(path_).second;
            });
    }
    ~HeldDestination() {
        if (is_held_) {
            MutexLock const lock(client_.mutex_);
            client_.destinations_.erase(path_);
            client_.destination_freed_.notify_all();
        }
    }
    HeldDestination(HeldDestination const&) = delete;
    HeldDestination& operator=(HeldDestination const&) = delete;

    /// False when the client was stopped while another call had the destination.
    bool is_held() const noexcept { return is_held_; }

private:
    RegistryClient const& client_;
    std::string const& path_;
    bool is_held_ = false;
};

RegistryClient::RegistryClient(std::string base_url) : base_url_(std::move(base_url)) {
}

std::string RegistryClient::base_url() const {
    MutexLock lock(mutex_);
    return base_url_;
}

void RegistryClient::set_base_url(std::string base_url) {
    MutexLock lock(mutex_);
    base_url_ = std::move(base_url);
}

void RegistryClient::request_stop() {
    stop_.request_stop();
}

std::string RegistryClient::package_url(std::string const& name, std::string const& channel,
                                        std::string const& version, std::string const& arch) const {
    return base_url() + "/api/packages/" + name + "/" + channel + "/" + version + "/" + arch;
}

std::optional<std::string> RegistryClient::list_packages() const {
    return fetch_body(base_url() + "/api/packages", stop_.get_token());
}

std::optional<std::string> RegistryClient::list_channels(std::string const& name) const {
    return fetch_body(base_url() + "/api/packages/" + name + "/channels", stop_.get_token());
}

std::optional<std::string> RegistryClient::list_versions(std::string const& name,
                                                         std::string const& channel) const {
    return fetch_body(base_url() + "/api/packages/" + name + "/" + channel, stop_.get_token());
}

ErrorText RegistryClient::fetch_artifact(std::string const& name, std::string const& channel,
                                         std::string const& version, std::string const& arch,
                                         std::string const& destination_path) const {
    std::string const url = package_url(name, channel, version, arch) + "/artifact";
    HeldDestination const destination(*this, destination_path);
    return destination.is_held() ? download(url, destination_path, stop_.get_token())
                                 : download_failure(url);
}

std::optional<std::string> RegistryClient::fetch_body(std::string const& url,
                                                      std::stop_token const& stop) {
    auto output = tessaron::capture_shell(fetch_command(url), stop);
    if (!output || output->status != 0) {
        return std::nullopt;
    }
    return std::move(output->text);
}

ErrorText RegistryClient::download(std::string const& url, std::string const& destination_path,
                                   std::stop_token const& stop) {
    std::string const temporary = destination_path + ".tmp";
    // A transfer of an earlier process may be alive and writing still: into a file of its own then.
    std::remove(temporary.c_str());
    if (tessaron::run_shell(download_command(url, temporary), stop) != 0) {
        std::remove(temporary.c_str());
        return download_failure(url);
    }
    if (std::rename(temporary.c_str(), destination_path.c_str()) != 0) {
        return "download succeeded but couldn't move into place: " + destination_path;
    }
    return std::nullopt;
}

} // namespace mirelclient
