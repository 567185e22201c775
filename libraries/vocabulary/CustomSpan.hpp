#pragma once

#include <cstddef>

namespace tessaron {

namespace detail {

/// Says which bound was broken, and aborts.
[[noreturn]] void custom_span_failure(char const* condition) noexcept;

} // namespace detail

/// A pointer and a size; owns nothing.
///
/// Thread safety: as that of the elements, the caller's duty.
/// Errors: a part that does not lie within the span is a defect of the caller and ends the process.
template <typename T>
class CustomSpan {
public:
    constexpr CustomSpan() noexcept = default;
    constexpr CustomSpan(T* data, std::size_t size) noexcept : data_(data), size_(size) {}

    /// The part that begins at `offset`; a size of all ones means to the end.
    CustomSpan subspan(std::size_t offset, std::size_t size = ~std::size_t{0}) const noexcept {
        if (offset > size_) {
            detail::custom_span_failure("offset <= size_");
        }
        std::size_t const new_size = size == ~std::size_t{0} ? size_ - offset : size;
        if (new_size > size_ - offset) {
            detail::custom_span_failure("offset + NEW_SIZE <= size_");
        }
        return {data_ + offset, new_size};
    }

    constexpr T* data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr T* begin() const noexcept { return data_; }
    constexpr T* end() const noexcept { return data_ + size_; }

private:
    T* data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace tessaron
