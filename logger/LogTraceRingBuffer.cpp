#include "logger/LogTraceRingBuffer.hpp"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace tessaron::detail {
namespace {

/// A word of a slot. It may alias, since a slot is looked at as an array of these.
using Word [[gnu::may_alias]] = std::uint64_t;

static_assert(std::is_trivially_copyable_v<LogTraceEntry>);
static_assert(sizeof(LogTraceEntry) % sizeof(Word) == 0);
static_assert(alignof(LogTraceEntry) >= alignof(Word));

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

void write_slot(LogTraceEntry& slot, std::uint64_t timestamp, LogLevel level,
                std::string_view text) noexcept {
    // What stands behind the NUL of a shorter text is left from the slot's former one; the last
    // byte of a slot is never anything but NUL.
    std::size_t const length = std::min(text.size(), LogTraceEntry::K_TEXT_SIZE - 1);
    std::size_t const used = offsetof(LogTraceEntry, text) + length + 1;
    std::size_t const words = (used + sizeof(Word) - 1) / sizeof(Word);

    alignas(LogTraceEntry) char bytes[sizeof(LogTraceEntry)];
    std::uint64_t const zero = 0;
    std::memcpy(bytes + (words - 1) * sizeof zero, &zero, sizeof zero); // its end may stay unused
    std::memcpy(bytes + offsetof(LogTraceEntry, timestamp), &timestamp, sizeof timestamp);
    std::memcpy(bytes + offsetof(LogTraceEntry, level), &level, sizeof level);
    copy_truncated(bytes + offsetof(LogTraceEntry, text), LogTraceEntry::K_TEXT_SIZE, text);

    auto* to = reinterpret_cast<Word*>(&slot);
    for (std::size_t i = 0; i < words; ++i) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i * sizeof word, sizeof word);
        __atomic_store_n(to + i, word, __ATOMIC_RELAXED);
    }
}

LogTraceEntry read_slot(LogTraceEntry const& slot) noexcept {
    LogTraceEntry entry;
    auto const* from = reinterpret_cast<Word const*>(&slot);
    auto* to = reinterpret_cast<Word*>(&entry);
    for (std::size_t i = 0; i < sizeof entry / sizeof(Word); ++i) {
        to[i] = __atomic_load_n(from + i, __ATOMIC_RELAXED);
    }
    return entry;
}

} // namespace tessaron::detail
