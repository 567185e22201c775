#include "app/utilities/json_value.hpp"

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

using tessaron::json::Value;

/// Any text parses or throws one of the two documented exceptions; what a first dump has
/// normalised (six digits, dropped control characters) then survives further rounds unchanged.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string normal;
    try {
        auto const value = Value::parse(std::string(reinterpret_cast<char const*>(data), size));
        normal = Value::parse(value.dump()).dump();
    } catch (std::invalid_argument const&) {
        return 0;
    } catch (std::out_of_range const&) {
        // Rounded to six digits, a subnormal number is no longer exact and out of range.
        return 0;
    }
    if (Value::parse(normal).dump() != normal) {
        std::abort();
    }
    return 0;
}
