#pragma once

#include "app/utilities/line_text.hpp"
#include "bus/Envelope.hpp"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessaron::bus {

/// How much binary content a record may have, so that there is room for its fields within the
/// largest message that a hub sends. What a service answers with is cut to it.
inline constexpr std::size_t K_MAX_RECORD_DATA = 0x100000 - std::size_t{64} * 1024;

/// Writes a record, field by field:
///
///     return RecordWriter().text("name", name).number("port", port).bytes();
///
/// Thread safety: one thread at a time, the caller's duty.
class RecordWriter {
public:
    RecordWriter& text(std::string const& key, std::string value) {
        envelope_.fields[key] = std::move(value);
        return *this;
    }
    template <std::integral T>
    RecordWriter& number(std::string const& key, T value) {
        return text(key, std::to_string(value));
    }
    /// "status", and "error" where there is something to say.
    RecordWriter& status(bool ok, std::string const& error);
    RecordWriter& data(std::string_view bytes);
    /// One after the other, with a newline between any two.
    RecordWriter& lines(std::vector<std::string> const& lines);

    std::vector<std::uint8_t> bytes() const { return encode_envelope(envelope_); }

private:
    Envelope envelope_;
};

/// Reads what a `RecordWriter` wrote.
///
/// Thread safety: immutable after construction.
/// Errors: `std::invalid_argument` for a payload that is no envelope, and for a number that is
/// none or does not fit.
class RecordReader {
public:
    explicit RecordReader(std::vector<std::uint8_t> const& payload)
        : envelope_(decode_envelope(payload)) {}

    bool has(std::string const& key) const { return envelope_.fields.contains(key); }
    std::string text(std::string const& key, std::string const& fallback = {}) const;
    template <std::integral T>
    T number(std::string const& key, T fallback = {}) const {
        auto const found = envelope_.fields.find(key);
        if (found == envelope_.fields.end()) {
            return fallback;
        }
        if (auto const value = parse_number<T>(found->second)) {
            return *value;
        }
        throw std::invalid_argument(key + " is not a number: " + found->second);
    }
    /// Whether "status" is "ok".
    bool ok() const { return text("status") == "ok"; }
    std::string error() const { return text("error"); }
    std::string data() const { return {envelope_.data.begin(), envelope_.data.end()}; }
    /// No data are no lines.
    std::vector<std::string> lines() const;

private:
    Envelope const envelope_;
};

/// How many of the entries, from the first on, fit into `K_MAX_RECORD_DATA` bytes with a newline
/// behind each. Iterators may go backwards. `size_of` gives the bytes of an entry.
template <typename Iterator, typename SizeOf>
std::size_t count_that_fit(Iterator first, Iterator last, SizeOf size_of) {
    std::size_t left = K_MAX_RECORD_DATA;
    std::size_t count = 0;
    for (; first != last; ++first, ++count) {
        std::size_t const size = size_of(*first) + 1;
        if (size > left) {
            break;
        }
        left -= size;
    }
    return count;
}

} // namespace tessaron::bus
