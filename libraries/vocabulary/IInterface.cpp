#include "libraries/vocabulary/IInterface.hpp"

namespace proto::interface {

using tessaron::MutexLock;

std::shared_ptr<IInterface::ReceiveCallback>
IInterface::add_receive_callback(ReceiveCallback const& callback) {
    auto shared = std::make_shared<ReceiveCallback>(callback);
    MutexLock const lock(callbacks_mutex_);
    callbacks_.push_back(shared);
    receiver_count_ = callbacks_.size();
    return shared;
}

void IInterface::notify_receivers(tessaron::CustomSpan<unsigned char> bytes, bool has_more) {
    MutexLock const lock(callbacks_mutex_);
    has_more_ = has_more;
    for (std::size_t i = callbacks_.size(); i-- > 0;) {
        if (auto const callback = callbacks_[i].lock()) {
            unsigned long used = 0;
            (*callback)(bytes, used);
        } else {
            callbacks_.erase(callbacks_.begin() + static_cast<std::ptrdiff_t>(i));
            receiver_count_ = callbacks_.size();
        }
    }
}

void IInterface::wait_for_callbacks() {
    MutexLock const lock(callbacks_mutex_);
}

} // namespace proto::interface
