#pragma once

#include <bit>
#include <cstring>
#include <type_traits>

namespace proto {

/// How the value of an option slot stands in a frame; specialise it for a type that does not stand
/// there as in memory.
///
/// `K_LEAST_SIZE` is how many bytes must be there before `stored_size` can tell how many the value
/// takes; `K_IS_PLAIN` that it is always these.
template <typename T>
struct OptFieldTraits {
    static_assert(std::is_trivially_copyable_v<T>);
    static_assert(std::endian::native == std::endian::little, "frames are little-endian");

    static constexpr bool K_IS_PLAIN = true;
    static constexpr unsigned long K_LEAST_SIZE = sizeof(T);

    static void write(unsigned char* target, T const& value) {
        std::memcpy(target, &value, sizeof value);
    }
    static unsigned long wire_size(T const&) { return sizeof(T); }
    static unsigned long stored_size(unsigned char const*) { return sizeof(T); }
    static T read(unsigned char const* source) {
        T value;
        std::memcpy(&value, source, sizeof value);
        return value;
    }
};

} // namespace proto
