#include "bus/BusWire.hpp"

#include "libraries/crc/crcFast/CrcFast.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/ProtocolEndpoint.hpp"
#include "proto/bus/bus_frame.hpp"

#include <atomic>
#include <utility>
#include <variant>
#include <vector>

namespace tessaron::bus {

namespace {

using proto::bus::MessageType;
using proto::bus::OptionsField;
using FrameEndpoint =
    proto::ProtocolEndpoint<proto::bus::BusFrame, proto::bus::BusFrame, proto::CrcFast>;

bool has_message_id(MessageType type) {
    return type == MessageType::EVENT || type == MessageType::REQUEST ||
           type == MessageType::RESPONSE;
}

proto::bus::Options options_of(WireFrame const& header) {
    using namespace proto::bus;
    Options options;
    if (header.topic_id != 0) {
        std::get<OPTION_TOPIC_ID>(options) = header.topic_id;
    }
    if (has_message_id(header.type)) {
        std::get<OPTION_MSG_ID>(options) = header.msg_id;
    }
    if (header.frag_flags != 0) {
        std::get<OPTION_FRAG_INDEX>(options) = header.frag_index;
        std::get<OPTION_FRAG_FLAGS>(options) = header.frag_flags;
    }
    std::get<OPTION_ORIGIN>(options) = header.origin;
    if (header.ttl != K_DEFAULT_TTL) {
        std::get<OPTION_TTL>(options) = header.ttl;
    }
    if ((header.frag_flags & K_FRAG_FLAG_COMPRESSED) != 0) {
        std::get<OPTION_UNCOMPRESSED_SIZE>(options) = header.uncompressed_size;
    }
    return options;
}

void read_options(std::vector<unsigned char> const& field, WireFrame& frame) {
    using namespace proto::bus;
    if (field.size() <= OptionsField::K_MASK_SIZE) {
        return; // Nothing but a mask: whatever it says, no slot follows.
    }
    unsigned char const* const stored = field.data();
    frame.topic_id = OptionsField::get_field_from<OPTION_TOPIC_ID>(stored).value_or(0);
    frame.msg_id = OptionsField::get_field_from<OPTION_MSG_ID>(stored).value_or(0);
    frame.frag_index = OptionsField::get_field_from<OPTION_FRAG_INDEX>(stored).value_or(0);
    frame.frag_flags = OptionsField::get_field_from<OPTION_FRAG_FLAGS>(stored).value_or(0);
    frame.origin = OptionsField::get_field_from<OPTION_ORIGIN>(stored);
    frame.ttl = OptionsField::get_field_from<OPTION_TTL>(stored).value_or(K_DEFAULT_TTL);
    frame.uncompressed_size =
        OptionsField::get_field_from<OPTION_UNCOMPRESSED_SIZE>(stored).value_or(0);
}

/// What tells the frames of a node from all others'.
std::vector<proto::interface::ByteAt> frames_from(std::uint32_t address) {
    std::vector<proto::interface::ByteAt> bytes;
    for (unsigned char const byte : proto::bus::BUS_PREFIX) {
        bytes.push_back({bytes.size(), byte});
    }
    bytes.push_back({proto::bus::K_SOURCE_OFFSET, static_cast<unsigned char>(address)});
    bytes.push_back({proto::bus::K_SOURCE_OFFSET + 1, static_cast<unsigned char>(address >> 8)});
    return bytes;
}

ReceivedFrame received_frame(FrameEndpoint::Frame&& named) {
    using proto::meta::get_named;
    ReceivedFrame received;
    WireFrame& frame = received.frame;
    received.version = get_named<proto::VERSION_FIELD>(named);
    frame.type = static_cast<MessageType>(get_named<proto::TYPE_FIELD>(named));
    frame.source = get_named<proto::SOURCE_FIELD>(named);
    frame.dest = get_named<proto::DEST_FIELD>(named);
    read_options(get_named<proto::OPT_FIELD>(named), frame);
    auto& data = get_named<proto::DATA_FIELD>(named);
    if (auto* const bytes = std::get_if<std::vector<unsigned char>>(&data)) {
        received.has_data = true;
        frame.data = std::move(*bytes);
    }
    return received;
}

} // namespace

class BusWire::Endpoint {
public:
    Endpoint(Buffer rx, Buffer tx) : frames(false, {rx}, {tx}) {}

    /// Its frames need not come in, now and from later interfaces.
    void set_unwanted(std::vector<proto::interface::ByteAt> bytes) TESSARON_EXCLUDES(mutex_) {
        MutexLock const lock(mutex_);
        unwanted_ = std::move(bytes);
        if (rx_interface_ != nullptr) {
            rx_interface_->set_unwanted(unwanted_);
        }
    }
    void set_rx_interface(proto::interface::IInterface* rx) TESSARON_EXCLUDES(mutex_) {
        MutexLock const lock(mutex_);
        if (rx_interface_ != nullptr) {
            rx_interface_->set_unwanted({});
        }
        rx_interface_ = rx;
        if (rx_interface_ != nullptr) {
            rx_interface_->set_unwanted(unwanted_);
        }
    }

    std::atomic<proto::interface::IInterface*> tx_interface{nullptr};
    FrameEndpoint frames;

private:
    Mutex mutex_; ///< The transport's are taken under it.
    proto::interface::IInterface* rx_interface_ TESSARON_GUARDED_BY(mutex_) = nullptr;
    std::vector<proto::interface::ByteAt> unwanted_ TESSARON_GUARDED_BY(mutex_);
};

BusWire::BusWire(Buffer rx, Buffer tx, Receiver receiver, Rest rest)
    : endpoint_(std::make_unique<Endpoint>(rx, tx)) {
    endpoint_->frames.set_receive_callback(
        [receiver = std::move(receiver)](FrameEndpoint::Frame&& named) {
            receiver(received_frame(std::move(named)));
        },
        proto::HandlerPace::TOLD, std::move(rest));
}

BusWire::~BusWire() {
    stop();
}

BusWire::Slow::Slow(BusWire const& wire) : wire_(wire) {
    wire_.endpoint_->frames.begin_slow();
}

BusWire::Slow::~Slow() {
    wire_.endpoint_->frames.end_slow();
}

void BusWire::set_interfaces(proto::interface::IInterface& rx, proto::interface::IInterface& tx) {
    endpoint_->set_rx_interface(nullptr);
    endpoint_->tx_interface = &tx;
    endpoint_->frames.set_interfaces(rx, tx);
    endpoint_->set_rx_interface(&rx);
}

void BusWire::set_channel(std::uint16_t stamp, std::uint16_t accept_high) {
    endpoint_->frames.set_channel_stamp_value(stamp);
    endpoint_->frames.set_channel_accept_range(stamp, accept_high);
}

void BusWire::set_source(std::uint32_t address) {
    endpoint_->frames.set_source_match_value(address);
    endpoint_->set_unwanted(frames_from(address));
}

void BusWire::set_contested_source(std::uint32_t address) {
    endpoint_->set_unwanted({});
    endpoint_->frames.set_sent_source_value(address);
}

std::size_t BusWire::send(WireFrame const& header, CustomSpan<unsigned char const> payload) {
    using proto::make_field_info;
    static constexpr unsigned char K_NO_BYTES{};
    auto const type = static_cast<std::uint8_t>(header.type);
    auto const options = options_of(header);
    auto const send_with = [&](auto const&... data) {
        return endpoint_->frames.send(
            make_field_info<proto::TYPE_FIELD, std::uint8_t>(&type),
            make_field_info<proto::VERSION_FIELD, std::uint8_t>(&K_PROTOCOL_VERSION),
            make_field_info<proto::DEST_FIELD, std::uint32_t>(&header.dest),
            make_field_info<proto::OPT_FIELD, proto::bus::Options>(&options), data...);
    };
    if (header.type == MessageType::DISCOVERY_REQUEST) {
        return send_with();
    }
    return send_with(make_field_info<proto::DATA_FIELD, unsigned char*>(
        payload.empty() ? &K_NO_BYTES : payload.data(), payload.size()));
}

void BusWire::begin_burst() {
    if (auto* const tx = endpoint_->tx_interface.load()) {
        tx->begin_burst();
    }
}

void BusWire::end_burst() {
    if (auto* const tx = endpoint_->tx_interface.load()) {
        tx->end_burst();
    }
}

void BusWire::stop() {
    endpoint_->set_rx_interface(nullptr);
    endpoint_->frames.stop();
}

} // namespace tessaron::bus
