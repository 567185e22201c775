#include "MirelClientApp/tunnel/tunnel_dial.hpp"

#include "app/utilities/StopEvent.hpp"
#include "app/utilities/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <utility>

namespace mirelclient {

using tessaron::Mutex;
using tessaron::MutexLock;
using tessaron::StopEvent;
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

/// Waits for the end of an attempt. False when a stop was requested meanwhile.
bool wait_for_attempt(int socket, std::stop_token const& stop) {
    StopEvent const stop_event(stop);
    if (!stop_event.is_usable()) {
        return false;
    }
    std::array<pollfd, 2> waited{{{stop_event.descriptor(), POLLIN, 0}, {socket, POLLOUT, 0}}};
    while (poll(waited.data(), waited.size(), -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return waited[0].revents == 0;
}

bool is_connected(int socket) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

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

UniqueFd connect_to(SocketAddress const& address, std::stop_token const& stop) {
    UniqueFd socket(
        ::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.is_open()) {
        return {};
    }
    int const repeats = K_CONNECT_REPEATS;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_SYNCNT, &repeats, sizeof repeats);
    auto const* const generic = reinterpret_cast<sockaddr const*>(&address.bytes);
    if (connect(socket.get(), generic, address.size) == 0) {
        return socket;
    }
    if (errno != EINPROGRESS && errno != EINTR) {
        return {};
    }
    bool const ended = wait_for_attempt(socket.get(), stop);
    return ended && is_connected(socket.get()) ? std::move(socket) : UniqueFd();
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

UniqueFd connect_local(std::uint16_t port, std::stop_token const& stop) {
    SocketAddress address;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(&address.bytes, &local, sizeof local);
    address.size = sizeof local;
    UniqueFd socket = connect_to(address, stop);
    if (socket.is_open()) {
        fcntl(socket.get(), F_SETFL, fcntl(socket.get(), F_GETFL) & ~O_NONBLOCK);
    }
    return socket;
}

} // namespace mirelclient
