#include "MirelClientApp/vnc/dial_local_tcp.hpp"

#include "MirelClientApp/vnc/wait_for_server.hpp"
#include "app/utilities/StopEvent.hpp"

#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace mirelclient {

using tessaron::StopEvent;
using tessaron::UniqueFd;

namespace {

/// False if there is no connection, or no point in waiting for it any longer.
bool wait_for_answer(int fd, std::stop_token const& stop, int viewer) {
    StopEvent const stop_event(stop);
    if (!stop_event.is_usable()) {
        return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return wait_for_server(fd, viewer, stop_event.descriptor()) &&
           ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

} // namespace

UniqueFd dial_local_tcp(unsigned short port, std::stop_token const& stop, int viewer) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    auto const* const generic = reinterpret_cast<sockaddr const*>(&address);
    if (!fd.is_open() || (::connect(fd.get(), generic, sizeof address) != 0 &&
                          (errno != EINPROGRESS || !wait_for_answer(fd.get(), stop, viewer)))) {
        return UniqueFd();
    }
    ::fcntl(fd.get(), F_SETFL, 0); // the only flag that it had: from now on it blocks
    int const on = 1;              // a pointer's movement must not wait for the one before
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

} // namespace mirelclient
