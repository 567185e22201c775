#pragma once

#include "libraries/interfaces/framing/FrameCollector.hpp"
#include "libraries/interfaces/socket/Socket.hpp"
#include "libraries/vocabulary/IInterface.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace proto::interface {

/// Connections at once; a further one is closed as it comes.
inline constexpr std::size_t K_MAX_TCP_CLIENTS = 64;
/// For how long one write waits for clients that take no more; it then drops them.
inline constexpr std::chrono::milliseconds K_TCP_STALL_LIMIT{250};

/// A TCP server as a transport: what is written goes to all clients, what any of them sends goes to
/// the receivers as one stream of bytes. Frames of two clients that send at once may mix in there.
///
/// A client must keep reading. The system holds some megabytes for it; once these are full, a write
/// waits, for all such clients together, and those that have still not taken all of it when the
/// limit is over lose their connection: half a frame would be of no use to them.
///
/// Ownership: a connection is shared by its thread and by those who are writing to it, so that its
/// descriptor's number stays its own meanwhile.
/// Thread safety: safe from any thread. `send_mutex_` is held while a write waits, the others for
/// table access; `lifecycle_mutex_` by `open` and `close`, which waits for the threads. Callbacks
/// run on the threads "gateway-client", and may write; they must not call `close`.
/// Errors: `false`. The constructor has the process ignore SIGPIPE.
class TcpServerInterface final : public IInterface {
public:
    explicit TcpServerInterface(std::chrono::milliseconds stall_limit = K_TCP_STALL_LIMIT);
    ~TcpServerInterface() override;

    /// On all addresses; port 0 has the system choose.
    bool open_tcp(std::uint16_t port);
    /// The port in use, once it is open.
    std::uint16_t port() const { return port_; }

    bool open() override TESSARON_EXCLUDES(lifecycle_mutex_);
    bool close() override TESSARON_EXCLUDES(lifecycle_mutex_);
    bool is_open() override { return open_; }

    /// Within a frame: adds to it, and tells whether there is a client. Otherwise: true if at least
    /// one client, or the system for it, took it all. The time-out is ignored.
    bool write(tessaron::CustomSpan<unsigned char> bytes,
               std::chrono::milliseconds timeout) override;
    /// A frame leaves in one piece, and never within another.
    void begin_frame() override { frames_.begin(); }
    void end_frame() override;
    /// Always -1: bytes reach the callbacks alone.
    long read(unsigned char* buffer, unsigned long size) override;

    bool has_client() { return client_count() > 0; }
    std::size_t client_count();
    /// Waits until a client has come since the last such wait, or since it was opened. False when
    /// the time is over, or at `close`.
    bool wait_for_client(std::chrono::milliseconds limit);

private:
    using Bytes = tessaron::CustomSpan<unsigned char>;

    /// One connection; the descriptor lives as long as the object.
    struct ClientConn {
        explicit ClientConn(Socket connection) : socket(std::move(connection)) {}

        /// Wakes whoever waits for the connection; its thread then ends.
        void drop();

        Socket const socket;
        std::atomic<bool> alive{true};
        std::thread thread; ///< guarded by the server's `clients_mutex_`
    };
    using Client = std::shared_ptr<ClientConn>;
    /// What a client has not taken yet.
    struct Unsent {
        Client client;
        Bytes rest;
    };

    bool listen_on_port() TESSARON_REQUIRES(lifecycle_mutex_);
    void close_locked() TESSARON_REQUIRES(lifecycle_mutex_);
    void accept_loop(int listener);
    void rest_after_failed_accept();
    void admit(Socket connection);
    void serve(Client const& client);
    void retire(Client const& client);
    void join_retired();
    void drop_all_clients();

    bool send_to_all(Bytes bytes);
    /// Sends what goes without waiting; false once there is nothing left to send to this client.
    bool send_some(Unsent& unsent) TESSARON_REQUIRES(send_mutex_);
    bool wait_for_room(std::chrono::steady_clock::time_point deadline)
        TESSARON_REQUIRES(send_mutex_);

    std::chrono::milliseconds const stall_limit_;

    tessaron::Mutex lifecycle_mutex_; ///< the outermost
    Socket listener_ TESSARON_GUARDED_BY(lifecycle_mutex_);
    std::thread accept_thread_ TESSARON_GUARDED_BY(lifecycle_mutex_);
    std::atomic<bool> open_{false}; ///< changes under `clients_mutex_` too, for those who wait
    std::atomic<std::uint16_t> port_{0};

    FrameCollector frames_;

    tessaron::Mutex send_mutex_; ///< one write after the other; `clients_mutex_` comes within
    std::vector<Unsent> unsent_ TESSARON_GUARDED_BY(send_mutex_);
    bool any_sent_ TESSARON_GUARDED_BY(send_mutex_) = false;

    tessaron::Mutex clients_mutex_;
    std::condition_variable clients_changed_;
    std::vector<Client> clients_ TESSARON_GUARDED_BY(clients_mutex_);
    std::vector<std::thread> retired_threads_ TESSARON_GUARDED_BY(clients_mutex_);
    bool client_arrived_ TESSARON_GUARDED_BY(clients_mutex_) = false;
};

} // namespace proto::interface
