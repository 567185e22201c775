#pragma once

#include "proto/Field.hpp"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace proto {

/// The payload of a packet that has none.
struct EmptyDataType {
    bool operator==(EmptyDataType const&) const = default;
};

namespace detail {

/// What a field's size is when its declaration leaves it to the type.
template <typename T>
inline constexpr unsigned long K_SIZE_OF_TYPE = std::is_pointer_v<T> ? K_UNKNOWN_SIZE : sizeof(T);

} // namespace detail

/// A field's declaration, and the base of every field.
///
///     using Length = FieldPrototype<LEN_FIELD, unsigned short, 0, FieldFlags::InCrc>;
///
/// `T` is a number, `unsigned char const*` for a constant string of bytes, or `unsigned char*` for
/// bytes whose number each frame settles. `BUFFER` is the ordinal of the buffer that holds the
/// field, among those that the container is given when it is made: a declaration says which fields
/// lie together, and each container where, so that two of one type share nothing. `MATCHER`
/// overrides the check that the container has for fields of that kind.
///
/// Thread safety: one thread at a time, the caller's duty.
template <FieldName NAME, typename T, unsigned BUFFER, FieldFlags FLAGS, unsigned long MAX = 4096,
          unsigned long SIZE = detail::K_SIZE_OF_TYPE<T>, unsigned char const* CONSTANT = nullptr,
          Matcher MATCHER = nullptr>
class FieldPrototype : public Field {
    static_assert(SIZE == K_UNKNOWN_SIZE || SIZE <= MAX);
    static_assert(CONSTANT == nullptr || SIZE != K_UNKNOWN_SIZE, "a constant has a size");
    static_assert(!has_flag(FLAGS, FieldFlags::ByteSwapped) ||
                      (SIZE != K_UNKNOWN_SIZE && CONSTANT == nullptr),
                  "what stands reversed has a size from its first byte on, and is no constant");
    static_assert(!has_flag(FLAGS, FieldFlags::ByteSwapped | FieldFlags::InCrc),
                  "the CRC is over the wire's bytes, and a swapped field is received in memory's");
    static_assert(std::is_pointer_v<T> || SIZE == sizeof(T), "a number is as large as its type");

public:
    using Type = T;
    static constexpr FieldName K_NAME = NAME;
    static constexpr FieldFlags K_FLAGS = FLAGS;
    static constexpr unsigned K_BUFFER = BUFFER;
    static constexpr unsigned long K_MAX = MAX;
    static constexpr unsigned long K_SIZE = SIZE;
    static constexpr unsigned char const* K_CONSTANT = CONSTANT;
    static constexpr bool K_IS_NUMBER = !std::is_pointer_v<T>;

    FieldPrototype() : Field({NAME, FLAGS, MAX, SIZE, CONSTANT}) { set_matcher(MATCHER); }

    /// The number as received.
    T value() const requires K_IS_NUMBER {
        T number;
        std::memcpy(&number, begin(), sizeof number);
        return number;
    }

    /// A received number, or the bytes received. The copy of a constant is empty: its bytes are
    /// known.
    auto get_copy() const {
        if constexpr (K_IS_NUMBER) {
            return value();
        } else if constexpr (CONSTANT != nullptr) {
            return std::vector<unsigned char>();
        } else {
            return std::vector<unsigned char>(begin(), begin() + read());
        }
    }

    /// Takes over the size of a value to send. `K_UNKNOWN_SIZE` leaves it, or makes it the fixed
    /// one; a size beyond `MAX` is refused with false, and changes nothing.
    template <typename Value>
    [[nodiscard]] bool set_size(unsigned long new_size) {
        if constexpr (!std::is_same_v<Value, EmptyDataType>) {
            if (new_size == K_UNKNOWN_SIZE) {
                if constexpr (SIZE != K_UNKNOWN_SIZE) {
                    assign_size(SIZE);
                }
                return true;
            }
            if (new_size > MAX) {
                return false;
            }
            assign_size(new_size);
        }
        return true;
    }
};

} // namespace proto
