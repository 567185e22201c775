#pragma once

#include "libraries/interfaces/multicast/DatagramBatch.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace proto::interface {

/// A batch of datagrams as one call of `sendmmsg` takes it. A run of the same size, of which the
/// last may be shorter, becomes one message that the system cuts into its datagrams.
///
/// Ownership: the batch and the destination must outlive the object.
/// Thread safety: one thread at a time, the caller's duty.
class DatagramMessages {
public:
    struct Extent {
        std::size_t datagrams = 0;
        std::size_t bytes = 0;
    };

    /// The datagrams of `batch` from the given one on, whose bytes begin at `offset`. Those larger
    /// than `segment_limit` become a message each.
    DatagramMessages(DatagramBatch& batch, std::size_t first, std::size_t offset,
                     sockaddr_in& destination, std::size_t segment_limit);
    DatagramMessages(DatagramMessages const&) = delete;
    DatagramMessages& operator=(DatagramMessages const&) = delete;

    /// As `sendmmsg`: how many messages went out, or -1.
    int send(int fd);
    /// What the first `messages` messages hold.
    Extent extent(std::size_t messages) const;
    /// How many datagrams the first message holds.
    std::size_t first_run() const { return runs_[0]; }

private:
    struct Control {
        alignas(cmsghdr) unsigned char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
    };

    void add(unsigned char* bytes, std::size_t size, std::size_t run, std::size_t segment_size,
             sockaddr_in& destination);

    std::size_t count_ = 0;
    std::array<mmsghdr, DatagramBatch::K_MAX_DATAGRAMS> messages_;
    std::array<iovec, DatagramBatch::K_MAX_DATAGRAMS> pieces_;
    std::array<std::size_t, DatagramBatch::K_MAX_DATAGRAMS> runs_;
    std::array<Control, DatagramBatch::K_MAX_DATAGRAMS> controls_;
};

} // namespace proto::interface
