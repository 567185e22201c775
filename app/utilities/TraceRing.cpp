#include "app/utilities/TraceRing.hpp"

#include <algorithm>
#include <cstring>

namespace tessaron::detail {
namespace {

/// A word of a slot. It may alias, since a slot is looked at as an array of these.
using Word [[gnu::may_alias]] = std::uint64_t;

std::size_t words_of(std::size_t size) noexcept {
    return (size + sizeof(Word) - 1) / sizeof(Word);
}

} // namespace

std::size_t copy_truncated(char* destination, std::size_t capacity,
                           std::string_view text) noexcept {
    constexpr std::string_view K_CUT_MARK = "...";
    if (capacity == 0) {
        return 0;
    }
    std::size_t const kept = std::min(text.size(), capacity - 1);
    text.copy(destination, kept);
    destination[kept] = '\0';
    if (kept < text.size()) {
        std::size_t const mark = std::min(K_CUT_MARK.size(), kept);
        std::memcpy(destination + kept - mark, K_CUT_MARK.data(), mark);
    }
    return kept;
}

void store_slot(void* slot, void const* entry, std::size_t size) noexcept {
    auto* const to = static_cast<Word*>(slot);
    auto const* const from = static_cast<Word const*>(entry);
    for (std::size_t i = 0; i < words_of(size); ++i) {
        __atomic_store_n(to + i, from[i], __ATOMIC_RELAXED);
    }
}

void load_slot(void* entry, void const* slot, std::size_t size) noexcept {
    auto* const to = static_cast<Word*>(entry);
    auto const* const from = static_cast<Word const*>(slot);
    for (std::size_t i = 0; i < words_of(size); ++i) {
        to[i] = __atomic_load_n(from + i, __ATOMIC_RELAXED);
    }
}

} // namespace tessaron::detail
