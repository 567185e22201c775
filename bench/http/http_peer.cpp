#include "bench/http/served.hpp"

#include <httplib.h>
#include <iostream>
#include <thread>

int main() {
    httplib::Server server;
    server.set_keep_alive_max_count(1);
    server.Get("/api/status", [](httplib::Request const&, httplib::Response& response) {
        response.set_content(bench::K_JSON, "application/json");
    });
    int const port = server.bind_to_any_port("127.0.0.1");
    if (port < 0) {
        std::cerr << "no port\n";
        return 1;
    }
    std::thread listener([&server] { server.listen_after_bind(); });
    bench::serve_until_end_of_input(port);
    server.stop();
    listener.join();
}
