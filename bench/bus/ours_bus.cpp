// Our side: a node in each process, with what a hub's users call. The payloads are bytes, as the
// peers' are. Usage: bus_ours near | far | idle
#include "bench/bus/commands.hpp"
#include "tests/support/MulticastNode.hpp"

#include <chrono>
#include <string>

namespace {

using namespace bench::bus;
using tessaron::bus::Hub;
using tessaron::test::MulticastNode;

constexpr char const* K_EVENTS = "bench.events";
constexpr char const* K_ECHO = "bench.echo";

int near(std::string const& /*unused*/) {
    MulticastNode node(101, "near");
    node.join();
    return obey_near({[&](Bytes const& message) { node.hub.publish_event(K_EVENTS, message); },
                      [&](Bytes const& message) {
                          return node.hub.request(K_ECHO, message, std::chrono::seconds(1)) ==
                                 message;
                      }});
}

int far(std::string const& /*unused*/) {
    Arrivals arrivals;
    MulticastNode node(102, "far");
    node.join();
    node.hub.subscribe_pattern(
        K_EVENTS,
        [&](std::string const&, Bytes const& message, Hub::Origin const&) {
            arrivals.take(message.data(), message.size());
        },
        "counts what comes");
    node.hub.serve(
        K_ECHO, [](Bytes const& message) { return message; }, "gives back what it gets");
    return obey_far(arrivals);
}

int idle(std::string const& /*unused*/) {
    MulticastNode node(103, "idle");
    node.join();
    return obey_near({});
}

} // namespace

int main(int argc, char** argv) {
    return run_end(argc, argv, {{"near", near}, {"far", far}, {"idle", idle}});
}
