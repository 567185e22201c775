#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace tessaron {

namespace detail {

/// Copies `text` and a NUL into `capacity` bytes; a text that has to be cut ends in "...".
/// Returns the number of bytes copied, without the NUL.
std::size_t copy_truncated(char* destination, std::size_t capacity, std::string_view text) noexcept;

/// Slots are written and read word by word with relaxed atomics: two threads may meet in a slot,
/// and then its contents may be mixed, but never more than that. `slot` and `entry` are aligned to
/// 8 bytes; `size` is rounded up to whole words.
void store_slot(void* slot, void const* entry, std::size_t size) noexcept;
void load_slot(void* entry, void const* slot, std::size_t size) noexcept;

} // namespace detail

/// A copy of the slots, and the number of entries ever recorded: the next one would go to slot
/// `write_index % entries.size()`.
template <typename Entry, std::size_t N>
struct TraceSnapshot {
    std::array<Entry, N> entries;
    std::uint64_t write_index = 0;
};

/// What a slot holds, also while another thread writes it. Async-signal-safe.
template <typename Entry>
Entry read_trace_slot(Entry const& slot) noexcept {
    Entry entry;
    detail::load_slot(&entry, &slot, sizeof entry);
    return entry;
}

/// The last `N` entries of what happens in the process, for crash and incident reports.
///
/// Fixed size, no lock, no allocation. A slot may be read while it is being written, which readers
/// accept.
///
/// Thread safety: safe from any thread. `raw_entries` and `raw_write_index` are async-signal-safe.
/// Errors: none.
template <typename Entry, std::size_t N>
class TraceRing {
    static_assert(std::is_trivially_copyable_v<Entry>);
    static_assert(sizeof(Entry) % sizeof(std::uint64_t) == 0);
    static_assert(alignof(Entry) >= alignof(std::uint64_t));

public:
    /// Writes the first `size` bytes of an entry; what stands behind them is left from the slot's
    /// former one.
    void put(Entry const& entry, std::size_t size = sizeof(Entry)) noexcept {
        std::uint64_t const index = write_index_.fetch_add(1, std::memory_order_relaxed);
        detail::store_slot(&entries_[index % N], &entry, size);
    }

    TraceSnapshot<Entry, N> snapshot() const noexcept {
        TraceSnapshot<Entry, N> copy;
        copy.write_index = raw_write_index();
        for (std::size_t i = 0; i < N; ++i) {
            detail::load_slot(&copy.entries[i], &entries_[i], sizeof(Entry));
        }
        return copy;
    }

    /// To be read with `read_trace_slot`.
    Entry const* raw_entries() const noexcept { return entries_.data(); }
    std::uint64_t raw_write_index() const noexcept {
        return write_index_.load(std::memory_order_relaxed);
    }

private:
    std::array<Entry, N> entries_{};
    std::atomic<std::uint64_t> write_index_{0};
};

} // namespace tessaron
