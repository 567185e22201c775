// ZeroMQ's REQ and REP over TCP on loopback. Usage: bus_zmq near | far PORT
#include "bench/bus/commands.hpp"

#include <cstdlib>
#include <string>
#include <thread>
#include <zmq.hpp>

namespace {

using namespace bench::bus;

int near(std::string const& url) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.connect(url);
    zmq::message_t reply;
    return obey_near({nullptr, [&](Bytes const& message) {
                          socket.send(zmq::buffer(message), zmq::send_flags::none);
                          return socket.recv(reply).has_value() && reply.size() == message.size();
                      }});
}

int far(std::string const& url) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::rep);
    socket.bind(url);
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
    std::string const end = argc > 2 ? argv[1] : "";
    std::string const url = std::string("tcp://127.0.0.1:") + (argc > 2 ? argv[2] : "");
    return end == "near" ? near(url) : end == "far" ? far(url) : 2;
}
