#include "bus/LastEventFilter.hpp"

#include <utility>

namespace tessaron::bus {

bool LastEventFilter::is_repeated(std::uint16_t local_address, std::uint16_t topic_id,
                                  std::uint32_t msg_id) {
    if (msg_id == 0) {
        return false;
    }
    std::uint32_t const key = std::uint32_t{local_address} << 16 | topic_id;
    if (!recent_.contains(key)) {
        if (recent_.size() >= K_GENERATION_SIZE) {
            older_ = std::exchange(recent_, {});
        }
        // One that was heard before moves to those heard lately; its last event comes with it.
        auto node = older_.extract(key);
        if (node.empty()) {
            recent_.emplace(key, msg_id);
            return false;
        }
        recent_.insert(std::move(node));
    }
    return std::exchange(recent_[key], msg_id) == msg_id;
}

} // namespace tessaron::bus
