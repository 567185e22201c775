#include "MirelClientApp/tunnel/tunnel_dial.hpp"

#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <netdb.h>
#include <utility>

namespace mirelclient {

using tessaron::Mutex;
using tessaron::MutexLock;
using tessaron::UniqueFd;

namespace {

std::vector<SocketAddress> look_up(HostPort const& where, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    if (getaddrinfo(where.host.c_str(), where.port.c_str(), &hints, &found) != 0) {
        return {};
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const owner(found, &freeaddrinfo);
    std::vector<SocketAddress> addresses;
    for (addrinfo const* entry = found; entry != nullptr; entry = entry->ai_next) {
        SocketAddress address;
        std::memcpy(&address.bytes, entry->ai_addr, entry->ai_addrlen);
        address.size = entry->ai_addrlen;
        addresses.push_back(address);
    }
    return addresses;
}

/// A question to the resolver, shared with the thread that asks it.
struct Lookup {
    explicit Lookup(HostPort wanted) : where(std::move(wanted)) {}

    void ask() TESSARON_EXCLUDES(mutex) {
        std::vector<SocketAddress> found;
        try {
            found = look_up(where, 0);
        } catch (std::exception const&) {
            // No memory: no answer.
        }
        MutexLock const lock(mutex);
        answer = std::move(found);
        answered.notify_all();
    }

    HostPort const where;
    Mutex mutex;
    std::condition_variable_any answered;
    std::optional<std::vector<SocketAddress>> answer TESSARON_GUARDED_BY(mutex);
};

} // namespace

std::optional<HostPort> split_host_port(std::string const& text) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        return std::nullopt;
    }
    return HostPort{text.substr(0, colon), text.substr(colon + 1)};
}

std::vector<SocketAddress> resolve(HostPort const& where, std::stop_token const& stop) {
    if (auto addresses = look_up(where, AI_NUMERICHOST); !addresses.empty()) {
        return addresses;
    }
    auto const lookup = std::make_shared<Lookup>(where);
    tessaron::start_thread("tunnel-lookup", [lookup] { lookup->ask(); }).detach();
    MutexLock lock(lookup->mutex);
    bool const answered =
        lookup->answered.wait(lock.native(), stop, [&lookup]() TESSARON_REQUIRES(lookup->mutex) {
            return lookup->answer.has_value();
        });
    return answered ? *lookup->answer : std::vector<SocketAddress>();
}

UniqueFd dial(std::string const& host_and_port, std::stop_token const& stop) {
    auto const where = split_host_port(host_and_port);
    if (!where) {
        return {};
    }
    for (SocketAddress const& address : resolve(*where, stop)) {
        UniqueFd socket = connect_to(address, stop);
        if (socket.is_open() || stop.stop_requested()) {
            return socket;
        }
    }
    return {};
}

} // namespace mirelclient
