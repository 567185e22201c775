#pragma once

#include "app/Config.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tessaron::config {

/// Something that decoding had to heal.
struct DecodeIssue {
    std::string field; ///< Empty for a problem of the file as a whole.
    std::string message;
};

struct DecodeReport {
    std::vector<DecodeIssue> issues;

    bool healed() const { return !issues.empty(); }
};

/// The text form of a configuration.
///
/// Thread safety: implementations are stateless; safe from any thread.
class IConfigCodec {
public:
    virtual ~IConfigCodec() = default;

    virtual std::string encode(Config const& config) const = 0;

    /// Resets `config` to its defaults and sets what `text` holds. Never throws for bad text: what
    /// could not be read stays at its default and is told in the report.
    virtual DecodeReport decode(std::string_view text, Config& config) const = 0;
};

} // namespace tessaron::config
