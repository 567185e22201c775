#pragma once

#include "bus/MessageChunks.hpp"
#include "bus/WireFrame.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "proto/bus/MessageType.hpp"
#include "proto/bus/Origin.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>
#include <vector>

namespace tessaron::bus {

/// One message being put together.
struct FragmentAssembly {
    std::uint32_t dest = 0;
    proto::bus::MessageType type{};
    std::uint8_t ttl = 0;
    std::uint8_t flags = 0; ///< The frame's, without those that make it a fragment.
    std::uint32_t uncompressed_size = 0;
    std::optional<proto::bus::Origin> origin;
    std::uint16_t topic_id = 0;
    MessageChunks chunks;                    ///< By `frag_index`.
    std::optional<std::uint16_t> last_index; ///< Known once the last part is there.
    std::chrono::steady_clock::time_point first_seen;
};

/// The source in the high half, the message id in the low one.
constexpr std::uint64_t fragment_key(std::uint32_t source, std::uint32_t msg_id) {
    return std::uint64_t{source} << 32 | msg_id;
}

/// Puts messages together from their fragments, which may come in any order, more than once, and
/// mixed with those of other messages. What is told of the message besides its bytes is taken from
/// the fragment that came first.
///
/// Nothing acknowledges or repeats a fragment, so a message that misses one never completes. It
/// goes away without a word: when it is `K_ASSEMBLY_LIFETIME` old and any fragment arrives; when it
/// has grown beyond what a node may send; or, the oldest first, when those in progress are too many
/// or too large together.
///
/// Thread safety: safe from any thread; one internal lock.
/// Errors: none; a lost message is silence, as everywhere on the bus.
class FragmentAssembler {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::seconds K_ASSEMBLY_LIFETIME{10};
    static constexpr std::size_t K_MAX_MESSAGE_SIZE = 0x100000;
    static constexpr std::size_t K_MAX_ASSEMBLIES = 256;
    /// Of all that is held, each chunk counted with `K_CHUNK_OVERHEAD`, so that many tiny ones are
    /// not held for free.
    static constexpr std::size_t K_MAX_HELD_SIZE = std::size_t{32} * 1024 * 1024;
    static constexpr std::size_t K_CHUNK_OVERHEAD = 128;
    /// Up to so much is set aside for messages before they come, and counts as held.
    static constexpr std::size_t K_MAX_EXPECTED_SIZE = K_MAX_HELD_SIZE / 2;

    /// Takes one fragment; returns the whole message when it was the one still missing. `now` never
    /// goes backwards from one call to the next. The message has the `frag_index` 0 and of the
    /// `frag_flags` only those that tell of its payload.
    std::optional<WireFrame> add(WireFrame fragment, TimePoint now) TESSARON_EXCLUDES(mutex_);

    std::size_t assemblies() const TESSARON_EXCLUDES(mutex_);
    /// As `K_MAX_HELD_SIZE` counts.
    std::size_t held_size() const TESSARON_EXCLUDES(mutex_);

private:
    struct Entry {
        std::uint64_t key = 0;
        FragmentAssembly assembly;

        std::size_t held() const {
            return assembly.chunks.memory() + assembly.chunks.count() * K_CHUNK_OVERHEAD;
        }
        bool is_complete() const {
            return assembly.last_index && assembly.chunks.are_all_to(*assembly.last_index);
        }
    };
    using Entries = std::list<Entry>; ///< The oldest first.

    Entries::iterator find_or_make_locked(std::uint64_t key, WireFrame const& fragment,
                                          TimePoint now) TESSARON_REQUIRES(mutex_);
    void store_chunk_locked(Entry& entry, WireFrame& fragment) TESSARON_REQUIRES(mutex_);
    Entry take_out_locked(Entries::iterator entry) TESSARON_REQUIRES(mutex_);
    void discard_expired_locked(TimePoint now) TESSARON_REQUIRES(mutex_);
    /// Down to the limits, oldest first; the one at hand stays.
    void discard_excess_locked(Entries::iterator kept) TESSARON_REQUIRES(mutex_);

    mutable Mutex mutex_;
    Entries entries_ TESSARON_GUARDED_BY(mutex_);
    std::unordered_map<std::uint64_t, Entries::iterator> by_key_ TESSARON_GUARDED_BY(mutex_);
    std::size_t held_ TESSARON_GUARDED_BY(mutex_) = 0;
    /// Of the last message that became whole: the next one is likely to be as large.
    std::size_t usual_size_ TESSARON_GUARDED_BY(mutex_) = 0;
};

} // namespace tessaron::bus
