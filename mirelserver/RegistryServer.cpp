#include "mirelserver/RegistryServer.hpp"

#include "mirelserver/ClientTable.hpp"
#include "mirelserver/HttpSession.hpp"
#include "mirelserver/Listener.hpp"
#include "mirelserver/Tunnel.hpp"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <vector>

namespace mirelserver {

namespace asio = boost::asio;

namespace {

RegistryFolder existing_folder(std::string const& path) {
    std::error_code error;
    if (!std::filesystem::is_directory(path, error)) {
        throw std::runtime_error("there is no registry folder " + path +
                                 " (\"mirelpack publish\" makes one; an empty folder will do too)");
    }
    return RegistryFolder(path);
}

/// A handler that throws (for want of memory, say) costs its own connection only.
void run_handlers(asio::io_context& context) {
    while (!context.stopped()) {
        try {
            context.run();
        } catch (std::exception const& error) {
            std::fprintf(stderr, "mirelserver: a connection failed: %s\n", error.what());
        }
    }
}

} // namespace

struct RegistryServer::Parts {
    using Socket = asio::ip::tcp::socket;

    explicit Parts(ServerOptions const& options)
        : thread_count(std::max(options.threads, 1U)), context(static_cast<int>(thread_count)),
          signals(context, SIGINT, SIGTERM), clients(std::make_shared<ClientTable>()) {
        auto routes = std::make_shared<RegistryRoutes const>(existing_folder(options.registry));
        listener = std::make_shared<Listener>(
            context, options.address, options.port, K_MAX_CONNECTIONS,
            [routes = std::move(routes), table = clients](Socket socket,
                                                          std::shared_ptr<void> slot) {
                std::make_shared<HttpSession>(std::move(socket), routes, table, std::move(slot))
                    ->run();
            });
        if (options.tunnel_port != 0) {
            tunnels = std::make_shared<Listener>(
                context, options.address, options.tunnel_port, K_MAX_TUNNELS,
                [table = clients](Socket socket, std::shared_ptr<void> slot) {
                    std::make_shared<Tunnel>(std::move(socket), table, std::move(slot),
                                             TunnelLimits())
                        ->run();
                });
        }
    }

    unsigned thread_count;
    asio::io_context context;
    asio::signal_set signals;
    std::shared_ptr<ClientTable> clients;
    std::shared_ptr<Listener> listener;
    std::shared_ptr<Listener> tunnels; ///< Null if there are to be none.
};

RegistryServer::RegistryServer(ServerOptions const& options)
    : parts_(std::make_unique<Parts>(options)) {
}

RegistryServer::~RegistryServer() = default;

std::string RegistryServer::url() const {
    auto const endpoint = parts_->listener->endpoint();
    std::string const host = endpoint.address().to_string();
    return "http://" + (endpoint.address().is_v6() ? "[" + host + "]" : host) + ":" +
           std::to_string(endpoint.port()) + "/";
}

unsigned short RegistryServer::port() const {
    return parts_->listener->endpoint().port();
}

void RegistryServer::run() {
    parts_->signals.async_wait([this](boost::system::error_code error, int) {
        if (!error) {
            stop();
        }
    });
    parts_->listener->run();
    if (parts_->tunnels) {
        parts_->tunnels->run();
    }
    std::vector<std::jthread> helpers;
    for (unsigned i = 1; i < parts_->thread_count; ++i) {
        helpers.emplace_back([this] { run_handlers(parts_->context); });
    }
    run_handlers(parts_->context);
    helpers.clear();
    end_tunnels();
}

/// Streams and the connections that they serve hold each other until their tunnel ends.
void RegistryServer::end_tunnels() {
    parts_->context.restart();
    parts_->clients->close_tunnels();
    try {
        parts_->context.poll();
    } catch (std::exception const& error) {
        std::fprintf(stderr, "mirelserver: a connection failed: %s\n", error.what());
    }
    parts_->context.stop();
}

void RegistryServer::stop() {
    parts_->context.stop();
}

} // namespace mirelserver
