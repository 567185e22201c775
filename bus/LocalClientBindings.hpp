#pragma once

#include "bus/DeviceRegistry.hpp"
#include "proto/bus/Bytes.hpp"
#include "proto/bus/topic_description.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// All that a client knows of its hub. Made by `Hub::make_client_bindings`; each call acts for the
/// client whose address they were made for.
///
/// Ownership: the hub must outlive every copy.
/// Thread safety: safe from any thread.
struct LocalClientBindings {
    using Bytes = proto::bus::Bytes;
    using TopicParams = std::vector<proto::bus::TopicParam>;

    /// An event to one address; returns its message id.
    std::function<std::uint32_t(std::uint32_t target, std::string const& topic, Bytes const&)>
        send_event;
    /// The same, retained as a publication where the target is everybody.
    std::function<std::uint32_t(std::uint32_t target, std::string const& topic, Bytes const&)>
        publish_to;
    std::function<std::unordered_map<std::uint32_t, DiscoveredDevice>()> discovered_devices;
    std::function<std::uint32_t()> next_msg_id;
    /// Both return the bytes sent.
    std::function<std::size_t(std::uint32_t target, std::uint32_t msg_id, std::uint16_t topic_id,
                              Bytes const&)>
        send_request;
    std::function<std::size_t(std::uint32_t target, std::uint32_t msg_id, Bytes const&)>
        send_response;
    std::function<void(std::string const& topic, std::string const& description,
                       proto::bus::TopicKind, TopicParams const&, bool flag)>
        advertise;
    /// The client hears a topic, or pattern, from now on.
    std::function<void(std::string const& pattern, std::string const& description)>
        refresh_debug_marker;
    /// Topics and payloads that the hub retains.
    std::function<std::vector<std::pair<std::string, Bytes>>(std::string const& pattern)>
        matching_retained_events;
    std::function<void(std::string const& text)> emit_warning;
};

} // namespace tessaron::bus
