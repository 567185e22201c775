#include "app/ConfigStore.hpp"

#include "app/config_envelopes.hpp"

#include <exception>

// What the configuration answers on the bus, on its client's request worker.

namespace tessaron::config {

namespace {

ConfigListReply list(Config const& config) {
    ConfigListReply reply;
    config.for_each([&reply](ConfigField const& field) {
        reply.fields.push_back(describe_config_field(field));
    });
    return reply;
}

} // namespace

void ConfigStoreBase::listen_on_bus(bus::IHub& hub, proto::bus::NodeIdentity const& identity,
                                    std::uint32_t address) {
    bus_client_ = hub.connect(address, identity);
    bus_client_->serve(
        "list", [this](Bytes const&) { return list(snapshot()).build(); },
        "Lists every config field: name/type/current value/default value/description (see "
        "config_envelopes's ConfigListReply) - the same schema --list-config shows locally");
    bus_client_->serve(
        "set", [this](Bytes const& request) { return set(request).build(); },
        "Sets one config field, by name, to a new value given as plain text - persisted to disk on "
        "success (see config_envelopes's ConfigSetRequest)");
}

ConfigSetReply ConfigStoreBase::set(proto::bus::Bytes const& payload) {
    try {
        auto const request = ConfigSetRequest::parse(payload);
        auto const [ok, error] = set_field(request.name, request.value);
        return {ok, error};
    } catch (std::exception const& failure) {
        return {false, failure.what()};
    }
}

} // namespace tessaron::config
