#include "app/JsonConfigCodec.hpp"

#include <nlohmann/json.hpp>

namespace tessaron::config {

namespace {

using Json = nlohmann::json;

template <typename T>
Json to_json(T const& value) {
    if constexpr (std::is_same_v<T, std::monostate>) {
        return nullptr;
    } else {
        return value;
    }
}

/// Reads `json` as the type of the field's default; throws the library's type error otherwise.
FieldValue read_as_type_of(FieldDefault const& default_value, Json const& json) {
    return std::visit(
        [&json](auto const& value) -> FieldValue {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, long long>) {
                // The library is strict about booleans only for its own integer type.
                return static_cast<long long>(json.get<std::int64_t>());
            } else {
                return json.get<T>();
            }
        },
        default_value);
}

void decode_field(Json const& root, ConfigField const& field, Config& config,
                  DecodeReport& report) {
    auto const member = root.find(field.name);
    if (member == root.end()) {
        report.issues.push_back({field.name, "missing from file, using default"});
        return;
    }
    if (!member->is_object()) {
        return;
    }
    auto const value = member->find("value");
    if (value == member->end() || value->is_null()) {
        return;
    }
    try {
        config.find_mutable(field.name).value = read_as_type_of(field.default_value, *value);
    } catch (std::exception const& error) {
        report.issues.push_back(
            {field.name, std::string("has the wrong type (") + error.what() + "), using default"});
    }
}

} // namespace

std::string JsonConfigCodec::encode(Config const& config) const {
    Json root = Json::object();
    config.for_each([&root](ConfigField const& field) {
        auto const as_json = [](auto const& value) { return to_json(value); };
        root[field.name] = {{"description", field.description},
                            {"type", field.type},
                            {"value", std::visit(as_json, field.value)},
                            {"default", std::visit(as_json, field.default_value)}};
    });
    // A value that is not UTF-8 must not keep the whole configuration from being saved.
    return root.dump(2, ' ', false, Json::error_handler_t::replace);
}

DecodeReport JsonConfigCodec::decode(std::string_view text, Config& config) const {
    config.reset_to_defaults();
    DecodeReport report;
    Json root;
    try {
        root = Json::parse(text);
    } catch (std::exception const& error) {
        report.issues.push_back({"", std::string("malformed JSON (") + error.what() +
                                         "), using defaults for every field"});
        return report;
    }
    if (!root.is_object()) {
        report.issues.push_back({"", "root is not a JSON object, using defaults for every field"});
        return report;
    }
    config.for_each([&](ConfigField const& field) { decode_field(root, field, config, report); });
    return report;
}

} // namespace tessaron::config
