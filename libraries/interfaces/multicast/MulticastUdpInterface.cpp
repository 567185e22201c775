#include "libraries/interfaces/multicast/MulticastUdpInterface.hpp"

#include "libraries/threads/start_thread.hpp"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <tuple>
#include <utility>

namespace proto::interface {

using crypto::ChaCha20;
using tessaron::MutexLock;

namespace {

constexpr std::uint32_t K_FIRST_BLOCK = 0;

ChaCha20::Nonce draw_nonce(std::mt19937& generator) {
    ChaCha20::Nonce nonce;
    for (std::size_t i = 0; i < nonce.size(); i += 4) {
        auto const word = static_cast<std::uint32_t>(generator());
        for (std::size_t byte = 0; byte < 4; ++byte) {
            nonce[i + byte] = static_cast<unsigned char>(word >> 8 * byte);
        }
    }
    return nonce;
}

} // namespace

MulticastUdpInterface::MulticastUdpInterface(MulticastTiming timing)
    : IInterface("Multicast UDP interface"), timing_(std::move(timing)),
      nonce_rng_(std::random_device{}()) {
    settings_.receive_timeout = timing_.receive_timeout;
    settings_.send_timeout = timing_.send_timeout;
}

MulticastUdpInterface::~MulticastUdpInterface() {
    MulticastUdpInterface::close();
}

bool MulticastUdpInterface::open_multicast(std::string const& group, std::uint16_t port,
                                           std::string const& interface_addr) {
    {
        MutexLock const lock(socket_mutex_);
        settings_.group = group;
        settings_.port = port;
        settings_.interface_addr = interface_addr;
    }
    return open();
}

bool MulticastUdpInterface::open() {
    MutexLock const lifecycle(lifecycle_mutex_);
    if (running_) {
        return true;
    }
    {
        MutexLock const lock(socket_mutex_);
        socket_ = MulticastSocket::open(settings_);
        running_ = socket_ != nullptr;
        if (!running_) {
            return false;
        }
    }
    stamp();
    try {
        for (std::thread& reader : readers_) {
            reader = tessaron::start_thread("bus-reader", [this] { read_loop(); });
        }
    } catch (std::system_error const&) {
        stop_reading();
        return false;
    }
    return true;
}

bool MulticastUdpInterface::close() {
    MutexLock const lifecycle(lifecycle_mutex_);
    stop_reading();
    return true;
}

void MulticastUdpInterface::stop_reading() {
    {
        MutexLock const lock(socket_mutex_);
        running_ = false;
        if (auto const socket = std::exchange(socket_, nullptr)) {
            socket->shut_down();
        }
    }
    stopped_.notify_all();
    for (std::thread& reader : readers_) {
        if (reader.joinable()) {
            reader.join();
        }
    }
}

std::shared_ptr<MulticastSocket> MulticastUdpInterface::current_socket() {
    MutexLock const lock(socket_mutex_);
    return socket_;
}

int MulticastUdpInterface::receive_buffer_size() {
    auto const socket = current_socket();
    return socket ? socket->receive_buffer_size() : 0;
}

bool MulticastUdpInterface::write(Bytes bytes, std::chrono::milliseconds /*timeout*/) {
    if (!running_) {
        return false;
    }
    if (frames_.add(bytes)) {
        return true;
    }
    Datagram datagram(bytes.begin(), bytes.end());
    return encrypt_and_send(datagram);
}

void MulticastUdpInterface::end_frame() {
    Datagram frame = frames_.end();
    if (!frame.empty()) {
        std::ignore = encrypt_and_send(frame); // a loss, as any on the bus
    }
    frames_.reuse(std::move(frame));
}

void MulticastUdpInterface::end_burst() {
    if (auto batch = bursts_.end()) {
        std::ignore = send_batch(*batch); // a loss, as any on the bus
        bursts_.reuse(std::move(batch));
    }
}

bool MulticastUdpInterface::encrypt_and_send(Datagram& plain) {
    std::optional<ChaCha20> cipher;
    ChaCha20::Nonce nonce{};
    {
        MutexLock const lock(cipher_mutex_);
        cipher = cipher_;
        if (cipher) {
            nonce = draw_nonce(nonce_rng_);
        }
    }
    if (!cipher) {
        return send_datagram(plain);
    }
    Datagram datagram(nonce.size() + plain.size());
    std::copy(nonce.begin(), nonce.end(), datagram.begin());
    std::copy(plain.begin(), plain.end(), datagram.begin() + nonce.size());
    cipher->apply_in_place(datagram.data() + nonce.size(), plain.size(), nonce, K_FIRST_BLOCK);
    return send_datagram(datagram);
}

bool MulticastUdpInterface::send_datagram(Datagram& datagram) {
    DatagramBatch* const batch = bursts_.current();
    if (batch == nullptr) {
        auto const socket = current_socket();
        return socket && socket->send({datagram.data(), datagram.size()});
    }
    if (!batch->has_room_for(datagram.size())) {
        std::ignore = send_batch(*batch); // those before; this one has hopes of its own
    }
    batch->add(datagram);
    return true;
}

bool MulticastUdpInterface::send_batch(DatagramBatch& batch) {
    auto const socket = current_socket();
    bool const sent = socket && socket->send_all(batch);
    batch.clear();
    return sent;
}

long MulticastUdpInterface::read(unsigned char* buffer, unsigned long size) {
    MutexLock const lock(read_mutex_);
    auto const socket = current_socket();
    if (!direct_reader_) {
        direct_reader_.emplace();
    }
    if (!socket || direct_reader_->next(*socket, MulticastSocket::IfNone::Wait) !=
                       DatagramReader::Outcome::Datagram) {
        return -1;
    }
    Bytes const datagram = direct_reader_->datagram();
    std::size_t const count = std::min<std::size_t>(size, datagram.size());
    std::copy_n(datagram.data(), count, buffer);
    return count > 0 ? static_cast<long>(count) : -1;
}

void MulticastUdpInterface::set_encryption_key(ChaCha20::Key const& key) {
    {
        MutexLock const lock(cipher_mutex_);
        cipher_.emplace(key);
    }
    hear_all(); // Encrypted, its bytes are others.
}

void MulticastUdpInterface::disable_encryption() {
    MutexLock const lock(cipher_mutex_);
    cipher_.reset();
}

bool MulticastUdpInterface::is_encryption_enabled() {
    MutexLock const lock(cipher_mutex_);
    return cipher_.has_value();
}

} // namespace proto::interface
