// Nothing but sockets: a datagram of a multicast group for each message, read by the thread that
// looks at it, with the system's default buffers. It shows what the network itself takes; a message
// beyond a datagram's size it does not know. Requests go to one group, replies to another.
// Usage: bus_bare near | far
#include "bench/bus/commands.hpp"
#include "bench/support/loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>

namespace {

using namespace bench::bus;

constexpr char const* K_MESSAGES = "239.255.19.40";
constexpr char const* K_REPLIES = "239.255.19.41";
constexpr std::uint16_t K_MESSAGE_PORT = 47800;
constexpr std::uint16_t K_REPLY_PORT = 47801;
constexpr std::size_t K_LARGEST = 65507;

sockaddr_in group_address(char const* group, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, group, &address.sin_addr);
    return address;
}

int open_member(char const* group, std::uint16_t port) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in const address = group_address(group, port);
    ip_mreq membership{};
    membership.imr_multiaddr = address.sin_addr;
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
        bench::fail("join");
    }
    return fd;
}

void send_to(int fd, sockaddr_in const& group, std::uint8_t const* bytes, std::size_t size) {
    if (sendto(fd, bytes, size, 0, reinterpret_cast<sockaddr const*>(&group), sizeof group) < 0) {
        bench::fail("sendto");
    }
}

int near(std::string const& /*unused*/) {
    int const fd = open_member(K_REPLIES, K_REPLY_PORT);
    sockaddr_in const messages = group_address(K_MESSAGES, K_MESSAGE_PORT);
    Bytes reply(K_LARGEST);
    return obey_near(
        {[&](Bytes const& message) { send_to(fd, messages, message.data(), message.size()); },
         [&](Bytes const& message) {
             send_to(fd, messages, message.data(), message.size());
             return recv(fd, reply.data(), reply.size(), 0) == static_cast<ssize_t>(message.size());
         }});
}

/// Whether it is a message of a round; all else is a request.
bool is_of_a_round(std::uint8_t const* message) {
    Head head;
    std::memcpy(&head, message, sizeof head);
    return head.round < 0x10000;
}

int far(std::string const& /*unused*/) {
    Arrivals arrivals;
    int const fd = open_member(K_MESSAGES, K_MESSAGE_PORT);
    std::thread([fd, &arrivals] {
        sockaddr_in const replies = group_address(K_REPLIES, K_REPLY_PORT);
        Bytes buffer(K_LARGEST);
        while (true) {
            ssize_t const got = recv(fd, buffer.data(), buffer.size(), 0);
            if (got < static_cast<ssize_t>(sizeof(Head))) {
                bench::fail("recv");
            }
            if (is_of_a_round(buffer.data())) {
                arrivals.take(buffer.data(), static_cast<std::size_t>(got));
            } else {
                send_to(fd, replies, buffer.data(), static_cast<std::size_t>(got));
            }
        }
    }).detach();
    std::_Exit(obey_far(arrivals)); // the thread waits for ever
}

} // namespace

int main(int argc, char** argv) {
    return run_end(argc, argv, {{"near", near}, {"far", far}});
}
