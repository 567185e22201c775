// LCM over UDP multicast, as it comes: a receive buffer of the system's default size (ours asks for
// 1 MiB), and a queue of 30 messages for a subscription (ours is one of 100 frames). It cuts a
// message into datagrams of up to 64 KiB, ours are of up to 4 KiB.
// Usage: bus_lcm near | far
#include "bench/bus/commands.hpp"
#include "bench/support/loopback.hpp"

#include <cstdlib>
#include <lcm/lcm.h>
#include <string>
#include <thread>

namespace {

using namespace bench::bus;

constexpr char const* K_CHANNEL = "bench.events";

lcm_t* open_lcm() {
    // With a hop limit of 0 nothing leaves the machine.
    lcm_t* const lcm = lcm_create("udpm://239.255.76.67:7667?ttl=0");
    if (lcm == nullptr) {
        bench::fail("lcm_create");
    }
    return lcm;
}

int near(std::string const& /*unused*/) {
    lcm_t* const lcm = open_lcm();
    return obey_near({[lcm](Bytes const& message) {
                          lcm_publish(lcm, K_CHANNEL, message.data(),
                                      static_cast<unsigned>(message.size()));
                      },
                      nullptr});
}

void on_message(lcm_recv_buf_t const* received, char const*, void* arrivals) {
    static_cast<Arrivals*>(arrivals)->take(static_cast<std::uint8_t const*>(received->data),
                                           received->data_size);
}

int far(std::string const& /*unused*/) {
    Arrivals arrivals;
    lcm_t* const lcm = open_lcm();
    lcm_subscribe(lcm, K_CHANNEL, on_message, &arrivals);
    std::thread([lcm] {
        while (lcm_handle(lcm) == 0) {
        }
        bench::fail("lcm_handle");
    }).detach();
    std::_Exit(obey_far(arrivals)); // the thread waits for ever
}

} // namespace

int main(int argc, char** argv) {
    return run_end(argc, argv, {{"near", near}, {"far", far}});
}
