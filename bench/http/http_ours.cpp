#include "MirelClientApp/web/WebServer.hpp"
#include "bench/http/served.hpp"

#include <iostream>
#include <string>

using mirelclient::HttpRequest;
using mirelclient::HttpResponse;
using mirelclient::WebServer;

int main() {
    WebServer server("127.0.0.1", 0);
    server.route("GET", "/api/status",
                 [](HttpRequest const&) { return HttpResponse::json(bench::K_JSON, 200); });
    if (std::string const error = server.start(); !error.empty()) {
        std::cerr << error << '\n';
        return 1;
    }
    bench::serve_until_end_of_input(server.port());
}
