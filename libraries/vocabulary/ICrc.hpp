#pragma once

#include "libraries/vocabulary/CustomSpan.hpp"

#include <string>
#include <utility>

namespace proto {

/// A CRC-32 (IEEE 802.3, reflected), whose running value the caller carries: begin with 0, and hand
/// each result to the next `append`.
///
/// Thread safety: safe from any thread once constructed.
class ICrc {
public:
    explicit ICrc(std::string name) : name_(std::move(name)) {}
    virtual ~ICrc() = default;
    ICrc(ICrc const&) = delete;
    ICrc& operator=(ICrc const&) = delete;

    virtual void reset() = 0;
    virtual unsigned int calc(tessaron::CustomSpan<unsigned char> bytes) const = 0;
    virtual unsigned int append(unsigned int crc,
                                tessaron::CustomSpan<unsigned char> bytes) const = 0;

    std::string const& name() const noexcept { return name_; }

private:
    std::string const name_;
};

} // namespace proto
