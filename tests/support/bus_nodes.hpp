#pragma once

#include "bus/Hub.hpp"
#include "bus/LocalClient.hpp"
#include "bus/identity_text.hpp"
#include "proto/bus/topic_match.hpp"
#include "tests/support/LoopbackBus.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/wait_until.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace tessaron::test {

using proto::bus::Bytes;
using proto::bus::MessageType;
using proto::bus::Origin;
using proto::bus::topic_hash;

/// Long enough for an answer on a busy machine.
inline constexpr std::chrono::milliseconds K_CLAIM_WINDOW{200};
inline constexpr std::chrono::milliseconds K_LONG{20'000};

/// Values that threads add, in order. Copies share them, so that a handler may keep one for as long
/// as it lives.
template <typename T>
class Collected {
public:
    void add(T value) const {
        MutexLock lock(shared_->mutex);
        shared_->values.push_back(std::move(value));
    }
    std::vector<T> all() const {
        MutexLock lock(shared_->mutex);
        return shared_->values;
    }
    std::size_t size() const {
        MutexLock lock(shared_->mutex);
        return shared_->values.size();
    }
    bool wait_for(std::size_t count, std::string const& what) const {
        return wait_until([&] { return size() >= count; }, what);
    }

private:
    struct Shared {
        Mutex mutex;
        std::vector<T> values TESSARON_GUARDED_BY(mutex);
    };

    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

struct FrameBuffers {
    std::array<unsigned char, bus::Hub::MAX_PAYLOAD_SIZE> rx{};
    std::array<unsigned char, bus::Hub::MAX_PAYLOAD_SIZE> tx{};

    bus::BusWire::Buffer rx_span() { return {rx.data(), rx.size()}; }
    bus::BusWire::Buffer tx_span() { return {tx.data(), tx.size()}; }
};

/// Nodes of tests leave their markers apart from those of real ones.
inline std::string const& marker_base() {
    static TemporaryDirectory const directory;
    return directory.path();
}

/// Nobody contests anything, so there is nothing to wait for.
inline bus::Hub::Settings hub_settings(std::uint32_t domain = 0) {
    bus::Hub::Settings settings;
    settings.address_probe_window = std::chrono::milliseconds(2);
    settings.debug_marker_base = marker_base();
    settings.domain = domain;
    return settings;
}

inline bus::Hub::Settings claim_settings() {
    bus::Hub::Settings settings;
    settings.address_probe_window = K_CLAIM_WINDOW;
    settings.debug_marker_base = marker_base();
    return settings;
}

/// A hub with its buffers, and what it warned of.
class HubNode {
public:
    HubNode(LoopbackBus& bus, std::uint32_t address, std::string const& name = "node",
            bus::Hub::Settings const& settings = hub_settings())
        : HubNode(bus.add_port(), address, name, settings) {}
    /// On any transport.
    HubNode(proto::interface::IInterface& transport, std::uint32_t address,
            std::string const& name = "node", bus::Hub::Settings const& settings = hub_settings())
        : port(transport), hub(buffers.rx_span(), buffers.tx_span(), address,
                               proto::bus::make_identity(name, "hub-test", 1), settings) {
        hub.set_warning_sink([this](std::string const& text) { warnings.add(text); });
    }

    HubNode& join() {
        hub.set_interfaces(port, port);
        return *this;
    }
    std::string name() const {
        return bus::identity_field_to_string(hub.identity_snapshot().name, 50);
    }

    FrameBuffers buffers;
    Collected<std::string> warnings;
    proto::interface::IInterface& port;
    bus::Hub hub;
};

inline Bytes bytes_of(std::string const& text) {
    return {text.begin(), text.end()};
}

/// The far end of the wire without a hub: sends what it is told to and keeps what it hears.
class RawNode {
public:
    RawNode(LoopbackBus& bus, std::uint32_t address) : RawNode(bus.add_port(), address) {}
    /// On any transport.
    RawNode(proto::interface::IInterface& transport, std::uint32_t address)
        : port(transport),
          wire(buffers.rx_span(), buffers.tx_span(), [this](bus::ReceivedFrame&& received) {
              if (on_frame) {
                  on_frame(received.frame);
              }
              frames.add(std::move(received.frame));
          }) {
        wire.set_source(address);
    }
    ~RawNode() { wire.stop(); }

    /// From now on: what is sent before, nobody hears.
    RawNode& join() {
        wire.set_interfaces(port, port);
        return *this;
    }

    void send(bus::WireFrame const& header, Bytes const& payload) {
        wire.send(header, {payload.data(), payload.size()});
    }
    void send(MessageType type, std::uint32_t dest, Bytes const& payload, std::string const& topic,
              std::uint32_t msg_id) {
        bus::WireFrame header;
        header.type = type;
        header.dest = dest;
        header.msg_id = msg_id;
        header.topic_id = topic_hash(topic.c_str());
        send(header, payload);
    }
    void announce(std::string const& name, proto::bus::TopicsAndRoles const& content = {},
                  std::uint32_t dest = bus::Hub::BROADCAST_ADDRESS) {
        bus::WireFrame header;
        header.type = MessageType::DISCOVERY_RESPONSE;
        header.dest = dest;
        send(header, proto::bus::encode_identity_topics_and_roles(
                         proto::bus::make_identity(name, "raw", 1), content));
    }

    std::vector<bus::WireFrame> heard(MessageType type) const {
        auto all = frames.all();
        std::erase_if(all, [type](auto const& frame) { return frame.type != type; });
        return all;
    }
    bool wait_for(MessageType type, std::size_t count, std::string const& what) const {
        return wait_until([&] { return heard(type).size() >= count; }, what);
    }

    FrameBuffers buffers;
    /// Set before `join`; runs on the wire's worker.
    std::function<void(bus::WireFrame const&)> on_frame;
    Collected<bus::WireFrame> frames;
    proto::interface::IInterface& port;
    bus::BusWire wire;
};

/// Whether the node has come to the event of that id; then it has done with all that came before.
inline bool has_come_to(bus::Hub const& hub, std::uint32_t msg_id) {
    auto const trace = hub.bus_trace_snapshot();
    return std::any_of(trace.entries.begin(), trace.entries.end(), [msg_id](auto const& entry) {
        return entry.direction == bus::BusTraceEntry::K_RECEIVED &&
               entry.type == MessageType::EVENT && entry.msg_id == msg_id;
    });
}

/// Returns when the node has done with all that stood on the bus before, its own questions
/// included, and the raw node has heard what it had to say.
inline void settle(RawNode& raw, bus::Hub& hub) {
    static std::atomic<std::uint32_t> last_id{0x70000000};
    std::uint32_t const id = ++last_id;
    raw.send(MessageType::EVENT, hub.address(), bytes_of("settle"), "settle", id);
    wait_until([&] { return has_come_to(hub, id); }, "the node has come to the marker");
    hub.discover(id); // Of nobody: a marker, too.
    wait_until(
        [&] {
            auto const heard = raw.heard(MessageType::DISCOVERY_REQUEST);
            return std::any_of(heard.begin(), heard.end(),
                               [id](auto const& frame) { return frame.dest == id; });
        },
        "the raw node has come to the node's marker");
}

/// Bytes of which no two neighbouring chunks are alike.
inline Bytes pattern_bytes(std::size_t size, unsigned seed = 1) {
    Bytes bytes(size);
    std::uint32_t state = seed * 2654435761U + 1;
    std::generate(bytes.begin(), bytes.end(), [&state] {
        state = state * 1664525U + 1013904223U;
        return static_cast<std::uint8_t>(state >> 24);
    });
    return bytes;
}

} // namespace tessaron::test
