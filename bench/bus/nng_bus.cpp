// NNG's REQ and REP over TCP on loopback. Usage: bus_nng near | far PORT
#include "bench/bus/commands.hpp"
#include "bench/support/loopback.hpp"

#include <cstdlib>
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>
#include <string>
#include <thread>

namespace {

using namespace bench::bus;

void check(int error, char const* what) {
    if (error != 0) {
        bench::fail(what);
    }
}

std::string url_of(std::string const& port) {
    return "tcp://127.0.0.1:" + port;
}

int near(std::string const& port) {
    nng_socket socket;
    check(nng_req0_open(&socket), "nng_req0_open");
    check(nng_dial(socket, url_of(port).c_str(), nullptr, 0), "nng_dial");
    return obey_near({nullptr, [socket](Bytes const& message) {
                          Bytes request = message;
                          check(nng_send(socket, request.data(), request.size(), 0), "nng_send");
                          void* reply = nullptr;
                          std::size_t size = 0;
                          check(nng_recv(socket, &reply, &size, NNG_FLAG_ALLOC), "nng_recv");
                          bool const is_echo = size == message.size();
                          nng_free(reply, size);
                          return is_echo;
                      }});
}

int far(std::string const& port) {
    nng_socket socket;
    check(nng_rep0_open(&socket), "nng_rep0_open");
    check(nng_listen(socket, url_of(port).c_str(), nullptr, 0), "nng_listen");
    std::thread([socket] {
        while (true) {
            void* request = nullptr;
            std::size_t size = 0;
            check(nng_recv(socket, &request, &size, NNG_FLAG_ALLOC), "nng_recv");
            check(nng_send(socket, request, size, NNG_FLAG_ALLOC), "nng_send");
        }
    }).detach();
    Arrivals none;
    std::_Exit(obey_far(none)); // the thread waits for ever
}

} // namespace

int main(int argc, char** argv) {
    return run_end(argc, argv, {{"near", near}, {"far", far}});
}
