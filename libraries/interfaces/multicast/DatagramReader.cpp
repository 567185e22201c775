#include "libraries/interfaces/multicast/DatagramReader.hpp"

#include <algorithm>
#include <cerrno>

namespace proto::interface {

DatagramReader::Outcome DatagramReader::next(MulticastSocket& socket,
                                             MulticastSocket::IfNone if_none) {
    begin_ += size_;
    if (begin_ >= end_) {
        begin_ = size_ = end_ = 0;
        auto const received = socket.receive(buffer_.data(), buffer_.size(), if_none);
        if (received.size <= 0) {
            return received.size == 0 || is_silence(errno) ? Outcome::Nothing : Outcome::Error;
        }
        end_ = static_cast<std::size_t>(received.size);
        segment_size_ = received.segment_size;
    }
    size_ = std::min(segment_size_, end_ - begin_);
    return Outcome::Datagram;
}

} // namespace proto::interface
