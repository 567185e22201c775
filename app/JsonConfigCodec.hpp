#pragma once

#include "app/IConfigCodec.hpp"

namespace tessaron::config {

/// The configuration as one JSON object, indented by 2 blanks, with a member per field:
///
///     "web_port": { "default": 7080, "description": "...", "type": "int", "value": null }
///
/// `value` is null for a field that was never set. Members are sorted by name.
class JsonConfigCodec : public IConfigCodec {
public:
    std::string encode(Config const& config) const override;
    DecodeReport decode(std::string_view text, Config& config) const override;
};

} // namespace tessaron::config
