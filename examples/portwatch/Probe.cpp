#include "Probe.hpp"

#include "app/utilities/UniqueFd.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <utility>

namespace portwatch {
namespace {

using Clock = std::chrono::steady_clock;

/// Connections under way; a long list of targets must not use up the process's descriptors.
constexpr std::size_t K_MAX_AT_ONCE = 200;

struct FreeAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

/// A target that is being connected to, until its socket is closed.
struct Attempt {
    Check check;
    tessaron::UniqueFd socket;
};

bool is_port(std::string const& text) {
    std::uint16_t port = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

void end(Attempt& attempt, std::string error, Clock::time_point began) {
    attempt.check.up = error.empty();
    attempt.check.error = std::move(error);
    attempt.check.took =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began);
    attempt.socket.reset();
}

/// Begins to connect; an attempt that has ended already has no socket.
Attempt begin(Target const& target, Clock::time_point began) {
    Attempt attempt{{target, false, {}, {}}, {}};
    if (!is_port(target.port)) {
        end(attempt, "not a port: " + target.port, began);
        return attempt;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    // No names: who looks one up cannot be interrupted.
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (::getaddrinfo(target.host.c_str(), target.port.c_str(), &hints, &found) != 0) {
        end(attempt, "not an address: " + target.host, began);
        return attempt;
    }
    std::unique_ptr<addrinfo, FreeAddresses> const address(found);
    attempt.socket.reset(
        ::socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!attempt.socket.is_open()) {
        end(attempt, std::strerror(errno), began);
    } else if (::connect(attempt.socket.get(), address->ai_addr, address->ai_addrlen) == 0) {
        end(attempt, {}, began);
    } else if (errno != EINPROGRESS) {
        end(attempt, std::strerror(errno), began);
    }
    return attempt;
}

void finish(Attempt& attempt, Clock::time_point began) {
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(attempt.socket.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
    }
    end(attempt, error == 0 ? std::string() : std::strerror(error), began);
}

/// Waits for whichever comes first, and ends those that are done. False if a stop came.
bool advance(std::vector<Attempt>& attempts, Clock::time_point began, Clock::time_point deadline,
             int stop_descriptor) {
    std::vector<pollfd> waiting{{stop_descriptor, POLLIN, 0}};
    for (Attempt const& attempt : attempts) {
        waiting.push_back({attempt.socket.get(), POLLOUT, 0}); // -1 is passed over
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    int const patience = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT32_MAX));
    int const ready = ::poll(waiting.data(), waiting.size(), patience);
    if (ready > 0 && waiting[0].revents != 0) {
        return false;
    }
    for (std::size_t i = 0; i < attempts.size(); ++i) {
        if (!attempts[i].socket.is_open()) {
            continue;
        }
        if (ready > 0 && waiting[i + 1].revents != 0) {
            finish(attempts[i], began);
        } else if (Clock::now() >= deadline) {
            end(attempts[i], "no answer in time", began);
        }
    }
    return true;
}

} // namespace

std::optional<std::vector<Check>> probe(std::vector<Target> const& targets,
                                        std::chrono::milliseconds timeout, int stop_descriptor) {
    std::vector<Check> checks;
    while (checks.size() < targets.size()) {
        auto const began = Clock::now();
        std::vector<Attempt> attempts;
        std::size_t const last = std::min(targets.size(), checks.size() + K_MAX_AT_ONCE);
        for (std::size_t i = checks.size(); i < last; ++i) {
            attempts.push_back(begin(targets[i], began));
        }
        auto const under_way = [](Attempt const& attempt) { return attempt.socket.is_open(); };
        while (std::any_of(attempts.begin(), attempts.end(), under_way)) {
            if (!advance(attempts, began, began + timeout, stop_descriptor)) {
                return std::nullopt;
            }
        }
        for (Attempt& attempt : attempts) {
            checks.push_back(std::move(attempt.check));
        }
    }
    return checks;
}

} // namespace portwatch
