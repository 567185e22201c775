#include "libraries/interfaces/multicast/DatagramMessages.hpp"

#include <cstring>
#include <netinet/udp.h>
#include <numeric>

namespace proto::interface {
namespace {

using Datagrams = std::span<DatagramBatch::Datagram>;

/// How many datagrams, from the first one on, may be one message.
std::size_t run_length(Datagrams datagrams, std::size_t segment_limit) {
    std::size_t const segment = datagrams.front().size();
    if (segment == 0 || segment > segment_limit) {
        return 1;
    }
    std::size_t total = segment;
    std::size_t end = 1;
    while (end < datagrams.size() && datagrams[end - 1].size() == segment &&
           datagrams[end].size() <= segment && !datagrams[end].empty() &&
           total + datagrams[end].size() <= K_MAX_DATAGRAM_SIZE) {
        total += datagrams[end++].size();
    }
    return end;
}

} // namespace

DatagramMessages::DatagramMessages(Datagrams datagrams, sockaddr_in& destination,
                                   std::size_t segment_limit) {
    iovec* pieces = pieces_.data();
    while (!datagrams.empty()) {
        std::size_t const run = run_length(datagrams, segment_limit);
        for (std::size_t i = 0; i < run; ++i) {
            pieces[i] = {datagrams[i].data(), datagrams[i].size()};
        }
        add(pieces, run, destination);
        pieces += run;
        datagrams = datagrams.subspan(run);
    }
}

void DatagramMessages::add(iovec* pieces, std::size_t run, sockaddr_in& destination) {
    runs_[count_] = run;
    msghdr& header = messages_[count_].msg_hdr;
    header = {};
    header.msg_name = &destination;
    header.msg_namelen = sizeof(destination);
    header.msg_iov = pieces;
    header.msg_iovlen = run;
    if (run > 1) {
        controls_[count_] = {};
        header.msg_control = controls_[count_].bytes;
        header.msg_controllen = sizeof(controls_[count_].bytes);
        cmsghdr* const control = CMSG_FIRSTHDR(&header);
        control->cmsg_level = IPPROTO_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
        auto const segment_size = static_cast<std::uint16_t>(pieces->iov_len);
        std::memcpy(CMSG_DATA(control), &segment_size, sizeof(segment_size));
    }
    ++count_;
}

int DatagramMessages::send(int fd) {
    return ::sendmmsg(fd, messages_.data(), static_cast<unsigned>(count_), MSG_NOSIGNAL);
}

std::size_t DatagramMessages::datagrams(std::size_t messages) const {
    auto const begin = runs_.begin();
    return std::accumulate(begin, begin + static_cast<std::ptrdiff_t>(messages), std::size_t{0});
}

} // namespace proto::interface
