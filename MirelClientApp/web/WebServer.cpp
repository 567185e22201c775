#include "MirelClientApp/web/WebServer.hpp"

#include "MirelClientApp/web/ConnectionHandler.hpp"
#include "MirelClientApp/web/ConnectionThreads.hpp"
#include "MirelClientApp/web/SilentConnections.hpp"
#include "libraries/threads/start_thread.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>
#include <vector>

namespace mirelclient {

using tessaron::UniqueFd;

namespace {

constexpr int K_BACKLOG = 32;
/// How long accepting rests when the process is out of descriptors or memory: the connection stays
/// in the queue, and polling for it would only spin.
constexpr int K_EXHAUSTED_PAUSE_MS = 20;
/// Connections taken from the queue before they are handed out. Handing out wakes threads, which
/// compete with this one, while the short queue overflows.
constexpr std::size_t K_ACCEPT_BATCH = 64;

std::string with_error_text(char const* what, int error) {
    return std::string(what) + std::strerror(error);
}

std::optional<sockaddr_in> socket_address(std::string const& bind_addr, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!bind_addr.empty() && ::inet_pton(AF_INET, bind_addr.c_str(), &address.sin_addr) != 1) {
        return std::nullopt;
    }
    return address;
}

std::uint16_t local_port(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

/// Takes what stands in the queue, as far as it fits in one batch; false if the process is out of
/// what a connection needs.
bool accept_batch(int listen_fd, std::vector<UniqueFd>& batch) {
    while (batch.size() < K_ACCEPT_BATCH) {
        // An accepted socket does not inherit the listener's flags: it blocks.
        int const fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            batch.emplace_back(fd);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
    }
    return true;
}

} // namespace

WebServer::WebServer(std::string bind_addr, unsigned short port)
    : bind_addr_(std::move(bind_addr)), port_(port),
      handler_(std::make_shared<ConnectionHandler>()) {
}

WebServer::~WebServer() {
    stop();
    handler_->retire();
}

void WebServer::route(std::string method, std::string const& pattern, HttpHandler handler) {
    handler_->add(Route{std::move(method), split_pattern(pattern), std::move(handler)});
}

void WebServer::route_ws(std::string method, std::string const& pattern, WebSocketHandler handler) {
    handler_->add(WsRoute{std::move(method), split_pattern(pattern), std::move(handler)});
}

std::string WebServer::start() {
    if (running_) {
        return {};
    }
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener.is_open()) {
        return with_error_text("socket() failed: ", errno);
    }
    int const on = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    auto const address = socket_address(bind_addr_, port_);
    if (!address) {
        return "invalid bind address: " + bind_addr_;
    }
    if (::bind(listener.get(), reinterpret_cast<sockaddr const*>(&*address), sizeof(*address)) !=
        0) {
        return with_error_text("bind() failed: ", errno);
    }
    if (::listen(listener.get(), K_BACKLOG) != 0) {
        return with_error_text("listen() failed: ", errno);
    }

    auto silent = std::make_unique<SilentConnections>(listener.get());
    if (!silent->is_open()) {
        return with_error_text("epoll_create1() failed: ", errno);
    }

    bound_port_ = local_port(listener.get());
    listen_fd_ = std::move(listener);
    silent_ = std::move(silent);
    threads_ = std::make_unique<ConnectionThreads>(
        [handler = handler_](UniqueFd fd) { handler->handle_connection(std::move(fd)); });
    handler_->open();
    running_ = true;
    try {
        accept_thread_ = tessaron::start_thread("web-accept", [this] { accept_loop(); });
    } catch (std::system_error const& failure) {
        stop();
        return failure.what();
    }
    return {};
}

void WebServer::stop() {
    handler_->close();
    running_ = false;
    if (listen_fd_.is_open()) {
        ::shutdown(listen_fd_.get(), SHUT_RDWR); // wakes the accept thread
    }
    if (accept_thread_.joinable()) {
        accept_thread_.join();
    }
    silent_.reset();
    threads_.reset();
    listen_fd_.reset();
}

bool WebServer::wait_until_answered(std::chrono::milliseconds time) {
    return handler_->wait_until_answered(time);
}

void WebServer::accept_loop() {
    std::vector<UniqueFd> accepted;
    std::vector<UniqueFd> talking;
    accepted.reserve(K_ACCEPT_BATCH);
    while (running_) {
        bool const listener = silent_->wait(talking);
        bool const exhausted = listener && running_ && !accept_batch(listen_fd_.get(), accepted);
        silent_->add(accepted);
        if (!talking.empty()) {
            threads_->run(talking);
        }
        if (exhausted) {
            ::poll(nullptr, 0, K_EXHAUSTED_PAUSE_MS);
        }
    }
}

} // namespace mirelclient
