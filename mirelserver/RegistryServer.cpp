#include "mirelserver/RegistryServer.hpp"

#include "mirelserver/Listener.hpp"

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
    explicit Parts(ServerOptions const& options)
        : thread_count(std::max(options.threads, 1U)), context(static_cast<int>(thread_count)),
          signals(context, SIGINT, SIGTERM),
          listener(std::make_shared<Listener>(
              context, options.address, options.port,
              std::make_shared<RegistryRoutes const>(existing_folder(options.registry)))) {}

    unsigned thread_count;
    asio::io_context context;
    asio::signal_set signals;
    std::shared_ptr<Listener> listener;
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
    std::vector<std::jthread> helpers;
    for (unsigned i = 1; i < parts_->thread_count; ++i) {
        helpers.emplace_back([this] { run_handlers(parts_->context); });
    }
    run_handlers(parts_->context);
}

void RegistryServer::stop() {
    parts_->context.stop();
}

} // namespace mirelserver
