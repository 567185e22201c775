#include "libraries/interfaces/multicast/MulticastSocket.hpp"

#include "libraries/interfaces/multicast/DatagramMessages.hpp"
#include "libraries/interfaces/multicast/SocketFilter.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/udp.h>
#include <numeric>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <tuple>
#include <utility>

namespace proto::interface {
namespace {

timeval to_timeval(std::chrono::milliseconds time) {
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    auto const rest = std::chrono::microseconds(time - seconds);
    return {static_cast<time_t>(seconds.count()), static_cast<suseconds_t>(rest.count())};
}

/// Whether the system refused to cut a piece into datagrams, and not the datagrams as such.
bool is_segmentation_refused(int error) {
    return error == EINVAL || error == EMSGSIZE || error == EIO || error == EOPNOTSUPP ||
           error == ENOPROTOOPT;
}

std::size_t size_of(std::span<DatagramBatch::Datagram const> datagrams) {
    return std::accumulate(datagrams.begin(), datagrams.end(), std::size_t{0},
                           [](std::size_t sum, auto const& each) { return sum + each.size(); });
}

} // namespace

bool is_silence(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

std::shared_ptr<MulticastSocket> MulticastSocket::open(MulticastSettings const& settings) {
    std::shared_ptr<MulticastSocket> socket(new MulticastSocket);
    return socket->set_up(settings) ? socket : nullptr;
}

bool MulticastSocket::set_up(MulticastSettings const& settings) {
    destination_.sin_family = AF_INET;
    destination_.sin_port = htons(settings.port);
    if (settings.port == 0 ||
        ::inet_pton(AF_INET, settings.group.c_str(), &destination_.sin_addr) != 1) {
        return false;
    }
    membership_.imr_multiaddr = destination_.sin_addr;
    bool const has_interface =
        ::inet_pton(AF_INET, settings.interface_addr.c_str(), &membership_.imr_interface) == 1;

    socket_ = Socket::make(SOCK_DGRAM);
    sockaddr_in own_address{};
    own_address.sin_family = AF_INET;
    own_address.sin_port = destination_.sin_port;
    if (!socket_.is_open() || !socket_.set_option(SOL_SOCKET, SO_REUSEADDR, 1) ||
        !socket_.set_option(SOL_SOCKET, SO_REUSEPORT, 1)) {
        return false;
    }
    // What makes the socket better where the system knows it, and is not missed where not.
    set_buffer_size(SO_SNDBUF, SO_SNDBUFFORCE, settings.buffer_size);
    set_buffer_size(SO_RCVBUF, SO_RCVBUFFORCE, settings.buffer_size);
    socket_.set_option(SOL_SOCKET, SO_RCVTIMEO, to_timeval(settings.receive_timeout));
    socket_.set_option(SOL_SOCKET, SO_SNDTIMEO, to_timeval(settings.send_timeout));
    socket_.set_option(IPPROTO_IP, IP_MULTICAST_ALL, 0);
    socket_.set_option(IPPROTO_UDP, UDP_GRO, 1);
    if (::bind(socket_.descriptor(), reinterpret_cast<sockaddr const*>(&own_address),
               sizeof(own_address)) != 0 ||
        !socket_.set_option(IPPROTO_IP, IP_ADD_MEMBERSHIP, membership_)) {
        return false;
    }
    socket_.set_option(IPPROTO_IP, IP_MULTICAST_LOOP, 1);
    if (has_interface) {
        socket_.set_option(IPPROTO_IP, IP_MULTICAST_IF, membership_.imr_interface);
    }
    return true;
}

void MulticastSocket::set_buffer_size(int option, int force_option, int size) {
    socket_.set_option(SOL_SOCKET, option, size);
    int granted = 0;
    socklen_t length = sizeof(granted);
    // The system doubles what it is asked for, and reports the double. Its limit for everyone does
    // not hold for who may administer the network.
    if (::getsockopt(socket_.descriptor(), SOL_SOCKET, option, &granted, &length) == 0 &&
        granted / 2 < size) {
        socket_.set_option(SOL_SOCKET, force_option, size);
    }
}

int MulticastSocket::receive_buffer_size() const {
    int granted = 0;
    socklen_t length = sizeof(granted);
    return ::getsockopt(socket_.descriptor(), SOL_SOCKET, SO_RCVBUF, &granted, &length) == 0
               ? granted / 2
               : 0;
}

bool MulticastSocket::send(tessaron::CustomSpan<unsigned char> datagram) {
    ssize_t sent = 0;
    do {
        sent = ::sendto(socket_.descriptor(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                        reinterpret_cast<sockaddr const*>(&destination_), sizeof(destination_));
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(datagram.size());
}

bool MulticastSocket::send_all(DatagramBatch& batch) {
    bool all_sent = true;
    auto left = batch.datagrams();
    while (!left.empty()) {
        DatagramMessages messages(left, destination_, segment_limit_);
        int const sent = messages.send(socket_.descriptor());
        if (sent > 0) {
            auto const gone = left.first(messages.datagrams(static_cast<std::size_t>(sent)));
            left = left.subspan(gone.size());
            pace_.wait_after(size_of(gone));
        } else if (errno == EINTR) {
            continue;
        } else if (messages.first_run() > 1 && is_segmentation_refused(errno)) {
            segment_limit_ = left.front().size() - 1;
        } else if (errno == EAGAIN || errno == EPIPE) {
            return false; // the wait for room is over, or the socket is: no better for the others
        } else {
            all_sent = false;
            left = left.subspan(messages.datagrams(1));
        }
    }
    return all_sent;
}

bool MulticastSocket::wait_for_datagram() {
    // Not poll: it would wake all threads for each datagram.
    return ::recv(socket_.descriptor(), nullptr, 0, MSG_PEEK | MSG_TRUNC) >= 0;
}

MulticastSocket::Received MulticastSocket::receive(unsigned char* buffer, std::size_t size,
                                                   IfNone if_none) {
    iovec piece{buffer, size};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof(control);
    ssize_t const got =
        ::recvmsg(socket_.descriptor(), &header, if_none == IfNone::Return ? MSG_DONTWAIT : 0);
    Received received{got, got > 0 ? static_cast<std::size_t>(got) : 0};
    if (got > 0) {
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
            int segment = 0;
            if (c->cmsg_level == IPPROTO_UDP && c->cmsg_type == UDP_GRO) {
                std::memcpy(&segment, CMSG_DATA(c), sizeof(segment));
            }
            if (segment > 0) {
                received.segment_size = static_cast<std::size_t>(segment);
            }
        }
    }
    return received;
}

void MulticastSocket::leave_out(std::vector<ByteAt> const& unwanted) {
    std::ignore = attach_filter(socket_.descriptor(), unwanted); // the receivers drop it as well
    is_leaving_out_ = true;
}

void MulticastSocket::hear_all() {
    if (is_leaving_out_.exchange(false)) {
        detach_filter(socket_.descriptor());
    }
}

void MulticastSocket::leave() {
    socket_.set_option(IPPROTO_IP, IP_DROP_MEMBERSHIP, membership_);
}

void MulticastSocket::shut_down_receiving() {
    socket_.shut_down(SHUT_RD);
}

void MulticastSocket::shut_down() {
    socket_.shut_down();
}

} // namespace proto::interface
