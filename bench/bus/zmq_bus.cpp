// ZeroMQ's REQ and REP over TCP on loopback. Usage: bus_zmq near | far PORT
#include "bench/bus/commands.hpp"

#include <cstdlib>
#include <string>
#include <thread>
#include <zmq.hpp>

namespace {

using namespace bench::bus;

std::string url_of(std::string const& port) {
    return "tcp://127.0.0.1:" + port;
}

int near(std::string const& port) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.connect(url_of(port));
    zmq::message_t reply;
    return obey_near({nullptr, [&](Bytes const& message) {
                          socket.send(zmq::buffer(message), zmq::send_flags::none);
                          return socket.recv(reply).has_value() && reply.size() == message.size();
                      }});
}

int far(std::string const& port) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::rep);
    socket.bind(url_of(port));
    std::thread([&socket] {
        zmq::message_t request;
        while (socket.recv(request)) {
            socket.send(request, zmq::send_flags::none);
        }
    }).detach();
    Arrivals none;
    std::_Exit(obey_far(none)); // the thread waits for ever
}

} // namespace

int main(int argc, char** argv) {
    return run_end(argc, argv, {{"near", near}, {"far", far}});
}
