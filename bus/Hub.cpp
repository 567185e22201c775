#include "bus/Hub.hpp"

#include "bus/device_report.hpp"
#include "bus/identity_text.hpp"

#include <algorithm>
#include <random>

// How a hub comes to life and ends, and who it is. Runs on its owner's thread; touches the identity
// and the warning sink.

namespace tessaron::bus {
namespace {

std::uint64_t draw() {
    std::random_device device;
    return std::uint64_t{device()} << 32 | device();
}

} // namespace

Hub::Hub(BusWire::Buffer rx, BusWire::Buffer tx, std::uint32_t address,
         NodeIdentity const& identity, Settings const& settings)
    : settings_(settings), preferred_address_(address), chance_(draw()), address_(address),
      identity_(identity), debug_name_(bus::debug_name(identity)),
      presence_(settings.presence_patience), network_cache_(settings.network_map_cache_ttl),
      request_worker_("bus-hub-req", [this](RequestTask const& task) { run_request(task); }),
      wire_(rx, tx, [this](ReceivedFrame&& received) { dispatch(std::move(received)); }) {
    touch_debug_marker(debug_app_name(identity), debug_name_, address, "",
                       settings.debug_marker_base);
    wire_.set_channel(settings.channel, std::max(settings.channel, settings.channel_max));
    wire_.set_source(BROADCAST_ADDRESS);
    serve_network_map();
}

Hub::~Hub() {
    request_worker_.stop();
    wire_.stop();
    remove_debug_marker(debug_app_name(identity_snapshot()), debug_name_,
                        settings_.debug_marker_base);
}

void Hub::set_interfaces(proto::interface::IInterface& rx, proto::interface::IInterface& tx) {
    wire_.set_interfaces(rx, tx);
    resolve_address();
    refresh_debug_marker();
}

void Hub::set_warning_sink(WarningSink sink) {
    MutexLock lock(warning_mutex_);
    warning_sink_.swap(sink);
}

Hub::NodeIdentity Hub::identity_snapshot() const {
    MutexLock lock(identity_mutex_);
    return identity_;
}

void Hub::add_role(std::string const& role) {
    MutexLock lock(state_mutex_);
    roles_.insert(role);
}

void Hub::emit_warning(std::string const& text) const {
    WarningSink sink;
    {
        MutexLock lock(warning_mutex_);
        sink = warning_sink_;
    }
    if (sink) {
        BusWire::Slow const slow(wire_);
        sink(text);
    }
}

void Hub::refresh_debug_marker() {
    DiscoveredDevice const own = own_record();
    touch_debug_marker(debug_app_name(own.identity), debug_name_, own.address,
                       device_report({{own.address, own}}, [](std::string const&) { return true; }),
                       settings_.debug_marker_base);
}

} // namespace tessaron::bus
