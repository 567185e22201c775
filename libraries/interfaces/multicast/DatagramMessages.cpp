#include "libraries/interfaces/multicast/DatagramMessages.hpp"

#include <cstring>
#include <netinet/udp.h>
#include <numeric>

namespace proto::interface {
namespace {

std::size_t run_length(std::vector<std::size_t> const& sizes, std::size_t first,
                       std::size_t segment_limit) {
    std::size_t const segment = sizes[first];
    if (segment == 0 || segment > segment_limit) {
        return 1;
    }
    std::size_t total = segment;
    std::size_t end = first + 1;
    while (end < sizes.size() && sizes[end - 1] == segment && sizes[end] <= segment &&
           sizes[end] > 0 && total + sizes[end] <= K_MAX_DATAGRAM_SIZE) {
        total += sizes[end++];
    }
    return end - first;
}

} // namespace

DatagramMessages::DatagramMessages(DatagramBatch& batch, std::size_t first, std::size_t offset,
                                   sockaddr_in& destination, std::size_t segment_limit) {
    auto const& sizes = batch.sizes();
    while (first < sizes.size() && count_ < messages_.size()) {
        std::size_t const run = run_length(sizes, first, segment_limit);
        auto const begin = sizes.begin() + static_cast<std::ptrdiff_t>(first);
        std::size_t const size =
            std::accumulate(begin, begin + static_cast<std::ptrdiff_t>(run), std::size_t{0});
        add(batch.bytes() + offset, size, run, sizes[first], destination);
        first += run;
        offset += size;
    }
}

void DatagramMessages::add(unsigned char* bytes, std::size_t size, std::size_t run,
                           std::size_t segment_size, sockaddr_in& destination) {
    pieces_[count_] = {bytes, size};
    runs_[count_] = run;
    msghdr& header = messages_[count_].msg_hdr;
    header = {};
    header.msg_name = &destination;
    header.msg_namelen = sizeof(destination);
    header.msg_iov = &pieces_[count_];
    header.msg_iovlen = 1;
    if (run > 1) {
        controls_[count_] = {};
        header.msg_control = controls_[count_].bytes;
        header.msg_controllen = sizeof(controls_[count_].bytes);
        cmsghdr* const control = CMSG_FIRSTHDR(&header);
        control->cmsg_level = IPPROTO_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
        auto const value = static_cast<std::uint16_t>(segment_size);
        std::memcpy(CMSG_DATA(control), &value, sizeof(value));
    }
    ++count_;
}

int DatagramMessages::send(int fd) {
    return ::sendmmsg(fd, messages_.data(), static_cast<unsigned>(count_), MSG_NOSIGNAL);
}

DatagramMessages::Extent DatagramMessages::extent(std::size_t messages) const {
    Extent extent;
    for (std::size_t i = 0; i < messages; ++i) {
        extent.datagrams += runs_[i];
        extent.bytes += pieces_[i].iov_len;
    }
    return extent;
}

} // namespace proto::interface
