#pragma once

#include "libraries/crypto/chacha20/ChaCha20.hpp"
#include "libraries/interfaces/framing/FrameCollector.hpp"
#include "libraries/interfaces/multicast/DatagramReader.hpp"
#include "libraries/interfaces/multicast/MulticastSocket.hpp"
#include "libraries/interfaces/multicast/SendBursts.hpp"
#include "libraries/vocabulary/IInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace proto::interface {

/// Silence after which the membership of the group is taken for dead, and joined anew.
inline constexpr std::chrono::milliseconds K_SILENCE_WATCHDOG_THRESHOLD{15000};
/// Failed requests in a row after which it is.
inline constexpr std::uint32_t K_FAILED_REQUESTS_THRESHOLD = 3;

/// The times of a `MulticastUdpInterface`.
struct MulticastTiming {
    /// How often the reader looks up when nothing comes.
    std::chrono::milliseconds receive_timeout{200};
    /// How long a send waits for room in the socket's buffer before the datagram is lost.
    std::chrono::milliseconds send_timeout{200};
    std::chrono::milliseconds silence_threshold = K_SILENCE_WATCHDOG_THRESHOLD;
    /// The clock that silence is measured by.
    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
};

/// UDP multicast: one frame is one datagram, and what a node sends comes back to it.
///
/// A membership can die without a word, for instance when the network interface restarts. So after
/// some silence, or failed requests that are reported here, the reader joins the group anew on a
/// new socket. Datagrams may be encrypted, by default they are not.
///
/// States: closed - open() -> running - close() -> closed. While it runs, a rejoin exchanges the
/// socket, or leaves none if the group cannot be joined now; the next silence brings the next try.
///
/// Ownership: the socket is shared by those who are in a call with it, and closed by the last.
/// Thread safety: safe from any thread; each lock below is held for table access only, save
/// `lifecycle_mutex_`, `turn_mutex_`, `reopen_mutex_` and `read_mutex_`, whose holders wait for
/// what they name. Callbacks and what they leave to follow run on the two threads "bus-reader", and
/// may write; they must not call `close`. Errors: `false`; a lost datagram is the normal condition
/// of a bus.
class MulticastUdpInterface final : public IInterface {
public:
    explicit MulticastUdpInterface(MulticastTiming timing = {});
    ~MulticastUdpInterface() override;

    /// `group` and `interface_addr` in dotted form, "0.0.0.0" for the interface that the system
    /// chooses. False if the group cannot be joined. What is open stays as it is until a rejoin.
    bool open_multicast(std::string const& group, std::uint16_t port,
                        std::string const& interface_addr = "0.0.0.0");

    bool open() override TESSARON_EXCLUDES(lifecycle_mutex_);
    bool close() override TESSARON_EXCLUDES(lifecycle_mutex_);
    bool is_open() override { return running_; }

    /// Within a frame: adds to it. Otherwise: one datagram. The time-out is ignored.
    bool write(tessaron::CustomSpan<unsigned char> bytes,
               std::chrono::milliseconds timeout) override;
    void begin_frame() override { frames_.begin(); }
    void end_frame() override;
    /// The datagrams of this thread leave at the burst's end, and each time that 64 of them or 64
    /// KiB are there. Those of one size in a row cost the system little more than one.
    void begin_burst() override { bursts_.begin(); }
    void end_burst() override;

    /// One datagram as it came, which the callbacks then do not get. -1 at the time-out.
    long read(unsigned char* buffer, unsigned long size) override TESSARON_EXCLUDES(read_mutex_);

    bool keeps_boundaries() const noexcept override { return true; }
    [[nodiscard]] std::shared_ptr<ReceiveCallback>
    add_receive_callback(ReceiveCallback const& callback) override;
    /// The system leaves it out, and nobody is woken for it, while datagrams come and they are not
    /// encrypted. In silence all is heard again: a node's own datagrams show that its membership is
    /// alive.
    void set_unwanted(std::vector<ByteAt> const& bytes) override TESSARON_EXCLUDES(socket_mutex_);
    bool follow_up(std::shared_ptr<FollowUp const> const& work) override;

    void set_encryption_key(crypto::ChaCha20::Key const& key);
    void disable_encryption();
    bool is_encryption_enabled();

    /// Three failures without a success in between ask the reader for a rejoin.
    void notify_request_outcome(bool ok);
    /// Joins the group anew, on a new socket. Does nothing while closed.
    void rejoin() TESSARON_EXCLUDES(reopen_mutex_);
    void rejoin_if_silent();
    /// How often the group has been joined anew, or tried to be.
    std::uint32_t rejoin_count() const { return rejoins_; }

    /// What the socket's receive buffer holds, which may be less than the 1 MiB it is asked to:
    /// then net.core.rmem_max is too low. 0 while there is no socket.
    int receive_buffer_size();

private:
    using Bytes = tessaron::CustomSpan<unsigned char>;
    using Datagram = DatagramBatch::Datagram;

    std::shared_ptr<MulticastSocket> current_socket();
    /// What is sent is taken, or left for another use of its memory.
    bool encrypt_and_send(Datagram& plain);
    bool send_datagram(Datagram& datagram);
    bool send_batch(DatagramBatch& batch);

    void stop_reading() TESSARON_REQUIRES(lifecycle_mutex_);
    void read_loop();
    void read_locked(MulticastSocket& socket) TESSARON_REQUIRES(turn_mutex_);
    void deliver(Bytes datagram, bool has_more);
    void leave_out_unwanted(MulticastSocket& socket) TESSARON_EXCLUDES(socket_mutex_);
    void hear_all() TESSARON_EXCLUDES(socket_mutex_);
    void look_after_membership();
    void rest();
    void stamp();

    MulticastTiming const timing_;

    tessaron::Mutex lifecycle_mutex_; ///< `open` and `close`, which join the readers; the outermost
    std::array<std::thread, 2> readers_ TESSARON_GUARDED_BY(lifecycle_mutex_);

    /// Whose turn it is to read: its holder calls the receivers. Outside of those below.
    tessaron::Mutex turn_mutex_;
    DatagramReader reader_ TESSARON_GUARDED_BY(turn_mutex_);
    std::vector<std::shared_ptr<FollowUp const>> follow_ups_; ///< Of who has the turn.
    std::atomic<bool> is_following_up_{false}; ///< One of them; the other one only reads.

    tessaron::Mutex reopen_mutex_; ///< one rejoin at a time; `socket_mutex_` comes within

    tessaron::Mutex socket_mutex_;
    std::condition_variable stopped_;
    MulticastSettings settings_ TESSARON_GUARDED_BY(socket_mutex_);
    std::shared_ptr<MulticastSocket> socket_ TESSARON_GUARDED_BY(socket_mutex_);
    std::vector<ByteAt> unwanted_ TESSARON_GUARDED_BY(socket_mutex_);
    std::atomic<bool> running_{false}; ///< changes under `socket_mutex_`

    std::atomic<std::int64_t> last_rx_ms_{0};
    std::atomic<std::uint32_t> datagrams_since_silence_{0}; ///< Or since what is unwanted changed.
    std::atomic<std::uint32_t> failed_requests_{0};
    std::atomic<bool> rejoin_requested_{false};
    std::atomic<std::uint32_t> rejoins_{0};

    FrameCollector frames_;
    SendBursts bursts_;

    tessaron::Mutex cipher_mutex_; ///< may be taken under `socket_mutex_`
    std::optional<crypto::ChaCha20> cipher_ TESSARON_GUARDED_BY(cipher_mutex_);
    std::mt19937 nonce_rng_ TESSARON_GUARDED_BY(cipher_mutex_);

    tessaron::Mutex read_mutex_; ///< callers of `read` wait for each other's datagrams
    std::optional<DatagramReader> direct_reader_ TESSARON_GUARDED_BY(read_mutex_);
};

} // namespace proto::interface
