// The reader: receives, decrypts and hands out datagrams, and looks after the membership when there
// are none. Runs on the thread "bus-reader"; `rejoin` on any. Touches the socket, the cipher, and
// what silence is measured by.
#include "libraries/interfaces/multicast/MulticastUdpInterface.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace proto::interface {

using crypto::ChaCha20;
using tessaron::MutexLock;

namespace {

/// Who has read so many datagrams gives the turn away, and sees to what is to be done for them.
constexpr std::size_t K_MAX_DATAGRAMS_IN_A_TURN = 16;

/// What nobody wants is left out once so many datagrams have come with no silence between them: it
/// is not worth the calls of the system for fewer.
constexpr std::uint32_t K_MANY_DATAGRAMS = 16;

} // namespace

// Two threads take turns: whoever is woken reads, and then does what the receivers have left to do
// for what it has read. So a message is read and handled on one thread, with no second wake-up on
// its way; and however long its handler takes, the other thread reads on.
void MulticastUdpInterface::read_loop() {
    std::vector<std::shared_ptr<FollowUp const>> due;
    while (running_) {
        auto const socket = current_socket();
        bool const has_datagram = socket && socket->wait_for_datagram();
        if (!has_datagram && (!socket || !is_silence(errno))) {
            rest();
        }
        {
            MutexLock const turn(turn_mutex_);
            if (has_datagram) {
                read_locked(*socket);
            } else if (running_) {
                hear_all();
                look_after_membership();
            }
            due.swap(follow_ups_);
        }
        for (auto const& work : due) {
            (*work)();
        }
        if (!due.empty()) {
            due.clear();
            is_following_up_ = false;
        }
        if (socket && !socket->is_leaving_out() && datagrams_since_silence_ >= K_MANY_DATAGRAMS) {
            leave_out_unwanted(*socket);
        }
    }
}

void MulticastUdpInterface::read_locked(MulticastSocket& socket) {
    constexpr auto K_RETURN = MulticastSocket::IfNone::Return;
    for (std::size_t read = 0; read < K_MAX_DATAGRAMS_IN_A_TURN || reader_.has_more(); ++read) {
        if (reader_.next(socket, K_RETURN) != DatagramReader::Outcome::Datagram) {
            return; // All that there is, or the other thread has read it.
        }
        if (read == 0) {
            stamp();
        }
        ++datagrams_since_silence_;
        deliver(reader_.datagram(), reader_.has_more());
    }
}

bool MulticastUdpInterface::follow_up(std::shared_ptr<FollowUp const> const& work) {
    if (is_following_up_ && follow_ups_.empty()) {
        return false;
    }
    is_following_up_ = true;
    if (std::find(follow_ups_.begin(), follow_ups_.end(), work) == follow_ups_.end()) {
        follow_ups_.push_back(work);
    }
    return true;
}

void MulticastUdpInterface::deliver(Bytes datagram, bool has_more) {
    std::optional<ChaCha20> cipher;
    {
        MutexLock const lock(cipher_mutex_);
        cipher = cipher_;
    }
    if (cipher) {
        ChaCha20::Nonce nonce;
        if (datagram.size() <= nonce.size()) {
            return;
        }
        std::copy_n(datagram.data(), nonce.size(), nonce.begin());
        datagram = datagram.subspan(nonce.size());
        cipher->apply_in_place(datagram.data(), datagram.size(), nonce, 0);
    }
    // The next one may be dropped above, unless there is no cipher.
    notify_receivers(datagram, has_more && !cipher);
}

std::shared_ptr<IInterface::ReceiveCallback>
MulticastUdpInterface::add_receive_callback(ReceiveCallback const& callback) {
    auto shared = IInterface::add_receive_callback(callback);
    hear_all(); // What one receiver does not want another one may.
    return shared;
}

void MulticastUdpInterface::set_unwanted(std::vector<ByteAt> const& bytes) {
    {
        MutexLock const lock(socket_mutex_);
        unwanted_ = bytes;
    }
    hear_all();
}

void MulticastUdpInterface::leave_out_unwanted(MulticastSocket& socket) {
    MutexLock const lock(socket_mutex_);
    if (!unwanted_.empty() && receiver_count() == 1 && !is_encryption_enabled()) {
        socket.leave_out(unwanted_);
    }
}

/// From now on; who changes what may be left out does it before. The lock has one that is about to
/// be left out be so before.
void MulticastUdpInterface::hear_all() {
    MutexLock const lock(socket_mutex_);
    datagrams_since_silence_ = 0;
    if (socket_) {
        socket_->hear_all();
    }
}

void MulticastUdpInterface::look_after_membership() {
    if (rejoin_requested_.exchange(false)) {
        rejoin();
    } else {
        rejoin_if_silent();
    }
}

/// Lets the time of a receive pass where there is nothing to wait on.
void MulticastUdpInterface::rest() {
    MutexLock lock(socket_mutex_);
    stopped_.wait_for(lock.native(), timing_.receive_timeout, [this] { return !running_; });
}

void MulticastUdpInterface::stamp() {
    last_rx_ms_ =
        std::chrono::duration_cast<std::chrono::milliseconds>(timing_.now().time_since_epoch())
            .count();
}

void MulticastUdpInterface::notify_request_outcome(bool ok) {
    if (ok) {
        failed_requests_ = 0;
    } else if (++failed_requests_ >= K_FAILED_REQUESTS_THRESHOLD) {
        rejoin_requested_ = true;
    }
}

void MulticastUdpInterface::rejoin_if_silent() {
    auto const now =
        std::chrono::duration_cast<std::chrono::milliseconds>(timing_.now().time_since_epoch());
    if (now - std::chrono::milliseconds(last_rx_ms_) >= timing_.silence_threshold) {
        rejoin();
    }
}

void MulticastUdpInterface::rejoin() {
    MutexLock const reopening(reopen_mutex_);
    stamp();
    failed_requests_ = 0;
    MulticastSettings settings;
    std::shared_ptr<MulticastSocket> old;
    {
        MutexLock const lock(socket_mutex_);
        if (!running_) {
            return;
        }
        settings = settings_;
        old = socket_;
    }
    // The last member of this machine has to leave before the next one's joining is told to the
    // network. Those who send go on by the old socket until the new one is there.
    if (old) {
        old->leave();
    }
    auto fresh = MulticastSocket::open(settings);
    {
        MutexLock const lock(socket_mutex_);
        if (running_) {
            socket_ = std::move(fresh);
        }
    }
    ++rejoins_;
    if (old) {
        old->shut_down_receiving();
    }
}

} // namespace proto::interface
