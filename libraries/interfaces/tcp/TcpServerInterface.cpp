#include "libraries/interfaces/tcp/TcpServerInterface.hpp"

#include "libraries/threads/start_thread.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace proto::interface {

using tessaron::MutexLock;

namespace {

constexpr int K_BACKLOG = 8;
constexpr std::size_t K_RECEIVE_BUFFER_SIZE = 4096;
/// How long accepting rests when the process is out of descriptors or memory.
constexpr std::chrono::milliseconds K_ACCEPT_REST{100};
/// A client that has vanished without a word is noticed after a minute.
constexpr int K_KEEPALIVE_IDLE_SECONDS = 30;
constexpr int K_KEEPALIVE_INTERVAL_SECONDS = 10;
constexpr int K_KEEPALIVE_PROBES = 3;

void set_up_connection(Socket const& connection) {
    connection.set_option(IPPROTO_TCP, TCP_NODELAY, 1);
    connection.set_option(SOL_SOCKET, SO_KEEPALIVE, 1);
    connection.set_option(IPPROTO_TCP, TCP_KEEPIDLE, K_KEEPALIVE_IDLE_SECONDS);
    connection.set_option(IPPROTO_TCP, TCP_KEEPINTVL, K_KEEPALIVE_INTERVAL_SECONDS);
    connection.set_option(IPPROTO_TCP, TCP_KEEPCNT, K_KEEPALIVE_PROBES);
}

} // namespace

void TcpServerInterface::ClientConn::drop() {
    alive = false;
    socket.shut_down();
}

TcpServerInterface::TcpServerInterface(std::chrono::milliseconds stall_limit)
    : IInterface("Tcp server interface"), stall_limit_(stall_limit) {
    std::signal(SIGPIPE, SIG_IGN);
}

TcpServerInterface::~TcpServerInterface() {
    TcpServerInterface::close();
}

bool TcpServerInterface::open_tcp(std::uint16_t port) {
    port_ = port;
    return open();
}

bool TcpServerInterface::open() {
    MutexLock const lifecycle(lifecycle_mutex_);
    if (open_) {
        return true;
    }
    if (!listen_on_port()) {
        close_locked();
        return false;
    }
    {
        MutexLock const lock(clients_mutex_);
        open_ = true;
        client_arrived_ = false;
    }
    try {
        accept_thread_ = tessaron::start_thread(
            "gateway-accept", [this, listener = listener_.descriptor()] { accept_loop(listener); });
    } catch (std::system_error const&) {
        close_locked();
        return false;
    }
    return true;
}

bool TcpServerInterface::listen_on_port() {
    listener_ = Socket::make(SOCK_STREAM);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!listener_.is_open() || !listener_.set_option(SOL_SOCKET, SO_REUSEADDR, 1) ||
        ::bind(listener_.descriptor(), generic, size) != 0 ||
        ::getsockname(listener_.descriptor(), generic, &size) != 0 ||
        ::listen(listener_.descriptor(), K_BACKLOG) != 0) {
        return false;
    }
    port_ = ntohs(address.sin_port);
    return true;
}

bool TcpServerInterface::close() {
    MutexLock const lifecycle(lifecycle_mutex_);
    close_locked();
    return true;
}

void TcpServerInterface::close_locked() {
    {
        MutexLock const lock(clients_mutex_);
        open_ = false;
    }
    clients_changed_.notify_all();
    drop_all_clients();
    if (listener_.is_open()) {
        listener_.shut_down();
    }
    if (accept_thread_.joinable()) {
        accept_thread_.join();
    }
    listener_.close(); // not before: its number could be another file's in a call to accept
    {
        MutexLock lock(clients_mutex_);
        clients_changed_.wait(
            lock.native(), [this]() TESSARON_REQUIRES(clients_mutex_) { return clients_.empty(); });
    }
    join_retired();
}

void TcpServerInterface::drop_all_clients() {
    MutexLock const lock(clients_mutex_);
    for (Client const& client : clients_) {
        client->drop();
    }
}

void TcpServerInterface::accept_loop(int listener) {
    while (open_) {
        Socket connection(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.is_open()) {
            join_retired();
            admit(std::move(connection));
        } else if (errno != EINTR && errno != ECONNABORTED) {
            rest_after_failed_accept();
        }
    }
}

void TcpServerInterface::rest_after_failed_accept() {
    MutexLock lock(clients_mutex_);
    clients_changed_.wait_for(lock.native(), K_ACCEPT_REST, [this] { return !open_; });
}

void TcpServerInterface::admit(Socket connection) {
    set_up_connection(connection);
    auto const client = std::make_shared<ClientConn>(std::move(connection));
    {
        // A new thread that ends at once waits for this lock before it looks for its own handle.
        MutexLock const lock(clients_mutex_);
        if (!open_ || clients_.size() >= K_MAX_TCP_CLIENTS) {
            return;
        }
        try {
            client->thread =
                tessaron::start_thread("gateway-client", [this, client] { serve(client); });
        } catch (std::system_error const&) {
            return;
        }
        clients_.push_back(client);
        client_arrived_ = true;
    }
    clients_changed_.notify_all();
}

void TcpServerInterface::serve(Client const& client) {
    std::array<unsigned char, K_RECEIVE_BUFFER_SIZE> buffer;
    while (open_ && client->alive) {
        ssize_t const got = ::recv(client->socket.descriptor(), buffer.data(), buffer.size(), 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 1) {
            break;
        }
        notify_receivers({buffer.data(), static_cast<std::size_t>(got)});
    }
    client->drop();
    retire(client);
}

void TcpServerInterface::retire(Client const& client) {
    MutexLock const lock(clients_mutex_);
    retired_threads_.push_back(std::move(client->thread));
    clients_.erase(std::find(clients_.begin(), clients_.end(), client));
    clients_changed_.notify_all();
}

void TcpServerInterface::join_retired() {
    std::vector<std::thread> retired;
    {
        MutexLock const lock(clients_mutex_);
        retired.swap(retired_threads_);
    }
    for (std::thread& thread : retired) {
        thread.join();
    }
}

std::size_t TcpServerInterface::client_count() {
    MutexLock const lock(clients_mutex_);
    return static_cast<std::size_t>(
        std::count_if(clients_.begin(), clients_.end(),
                      [](Client const& client) { return client->alive.load(); }));
}

bool TcpServerInterface::wait_for_client(std::chrono::milliseconds limit) {
    MutexLock lock(clients_mutex_);
    clients_changed_.wait_for(lock.native(), limit, [this]() TESSARON_REQUIRES(clients_mutex_) {
        return client_arrived_ || !open_;
    });
    return open_ && std::exchange(client_arrived_, false);
}

long TcpServerInterface::read(unsigned char* /*buffer*/, unsigned long /*size*/) {
    return -1;
}

} // namespace proto::interface
