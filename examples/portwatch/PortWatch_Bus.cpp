// What can be asked of it: on the thread of its node on the bus.

#include "PortWatch.hpp"

#include "config_fields.hpp"

#include "bus/Envelope.hpp"
#include "bus/address_derivation.hpp"
#include "proto/bus/NodeIdentity.hpp"

#include <functional>

namespace portwatch {

using tessaron::MutexLock;

namespace {

/// Where the node would like to be, behind the application's own address.
constexpr std::uint32_t K_ADDRESS_OFFSET = 100;

std::vector<std::uint8_t> ok() {
    return tessaron::bus::encode_envelope({{{"status", "ok"}}, {}});
}

} // namespace

void PortWatch::join_bus() {
    // A node of its own for what is this application's alone: it lists its topics by name, and what
    // is asked here does not wait for the database.
    std::string const& name = context().app_name();
    auto const wanted =
        static_cast<std::uint32_t>(context().config().as_int(tessaron::K_SHARED_BUS_ADDRESS));
    client_ = context().hub().connect_resolved(
        tessaron::bus::derive_service_address(wanted, K_ADDRESS_OFFSET),
        proto::bus::make_identity("watch", name, 1), std::hash<std::string>()(name));

    client_->advertise("portwatch.changed",
                       "A target went up or down: id, host, port, label, state, before, error");
    client_->serve(
        "portwatch.status", [this](Bytes const&) { return answer_status(); },
        "How many targets are up and down, and a line for each: id|label|host|port|state|ms|error");
    client_->serve(
        "portwatch.check_now", [this](Bytes const&) { return answer_check_now(); },
        "Begins a round now, instead of when the interval is over");
    client_->serve(
        "portwatch.crash", [this](Bytes const&) { return answer_crash(); },
        "Crashes the application on purpose, to show what a crash leaves");
}

PortWatch::Bytes PortWatch::answer_status() {
    std::size_t up = 0;
    std::size_t down = 0;
    std::string lines;
    {
        MutexLock lock(mutex_);
        for (auto const& [id, check] : last_) {
            ++(check.up ? up : down);
            lines += std::to_string(id) + "|" + check.target.label + "|" + check.target.host + "|" +
                     check.target.port + "|" + (check.up ? "up" : "down") + "|" +
                     std::to_string(check.took.count()) + "|" + check.error + "\n";
        }
    }
    return tessaron::bus::encode_envelope(
        {{{"status", "ok"}, {"up", std::to_string(up)}, {"down", std::to_string(down)}},
         {lines.begin(), lines.end()}});
}

PortWatch::Bytes PortWatch::answer_check_now() {
    MutexLock lock(mutex_);
    check_wanted_ = true;
    wanted_.notify_all();
    return ok();
}

PortWatch::Bytes PortWatch::answer_crash() {
    MutexLock lock(mutex_);
    crash_wanted_ = true;
    wanted_.notify_all();
    return ok();
}

} // namespace portwatch
