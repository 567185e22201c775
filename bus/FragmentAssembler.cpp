#include "bus/FragmentAssembler.hpp"

#include <utility>

namespace tessaron::bus {

namespace {

constexpr std::uint8_t K_FRAGMENT_FLAGS = K_FRAG_FLAG_FRAGMENT | K_FRAG_FLAG_LAST;

WireFrame whole_message(std::uint64_t key, FragmentAssembly&& assembly) {
    WireFrame message;
    message.type = assembly.type;
    message.source = static_cast<std::uint32_t>(key >> 32);
    message.dest = assembly.dest;
    message.msg_id = static_cast<std::uint32_t>(key);
    message.frag_flags = assembly.flags;
    message.ttl = assembly.ttl;
    message.origin = assembly.origin;
    message.topic_id = assembly.topic_id;
    message.uncompressed_size = assembly.uncompressed_size;
    message.data = assembly.chunks.take();
    return message;
}

} // namespace

std::optional<WireFrame> FragmentAssembler::add(WireFrame fragment, TimePoint now) {
    Entry whole;
    {
        MutexLock lock(mutex_);
        discard_expired_locked(now);
        std::uint64_t const key = fragment_key(fragment.source, fragment.msg_id);
        auto const entry = find_or_make_locked(key, fragment, now);
        store_chunk_locked(*entry, fragment);
        if (entry->assembly.chunks.size() > K_MAX_MESSAGE_SIZE) {
            take_out_locked(entry);
            return std::nullopt;
        }
        if (!entry->is_complete()) {
            discard_excess_locked(entry);
            return std::nullopt;
        }
        whole = take_out_locked(entry);
        usual_size_ = whole.assembly.chunks.size();
    }
    return whole_message(whole.key, std::move(whole.assembly));
}

std::size_t FragmentAssembler::assemblies() const {
    MutexLock lock(mutex_);
    return entries_.size();
}

std::size_t FragmentAssembler::held_size() const {
    MutexLock lock(mutex_);
    return held_;
}

FragmentAssembler::Entries::iterator
FragmentAssembler::find_or_make_locked(std::uint64_t key, WireFrame const& fragment,
                                       TimePoint now) {
    auto const [found, is_new] = by_key_.try_emplace(key);
    if (is_new) {
        FragmentAssembly assembly;
        assembly.dest = fragment.dest;
        assembly.type = fragment.type;
        assembly.ttl = fragment.ttl;
        assembly.flags = static_cast<std::uint8_t>(fragment.frag_flags & ~K_FRAGMENT_FLAGS);
        assembly.uncompressed_size = fragment.uncompressed_size;
        assembly.origin = fragment.origin;
        assembly.topic_id = fragment.topic_id;
        assembly.first_seen = now;
        if (held_ + usual_size_ <= K_MAX_EXPECTED_SIZE) {
            assembly.chunks.expect(usual_size_);
        }
        found->second = entries_.insert(entries_.end(), Entry{key, std::move(assembly)});
        held_ += found->second->held();
    }
    return found->second;
}

void FragmentAssembler::store_chunk_locked(Entry& entry, WireFrame& fragment) {
    held_ -= entry.held();
    entry.assembly.chunks.add(fragment.frag_index, std::move(fragment.data));
    held_ += entry.held();
    if ((fragment.frag_flags & K_FRAG_FLAG_LAST) != 0) {
        entry.assembly.last_index = fragment.frag_index;
    }
}

FragmentAssembler::Entry FragmentAssembler::take_out_locked(Entries::iterator entry) {
    Entry taken = std::move(*entry);
    held_ -= taken.held();
    by_key_.erase(taken.key);
    entries_.erase(entry);
    return taken;
}

void FragmentAssembler::discard_expired_locked(TimePoint now) {
    while (!entries_.empty() && now - entries_.front().assembly.first_seen > K_ASSEMBLY_LIFETIME) {
        take_out_locked(entries_.begin());
    }
}

void FragmentAssembler::discard_excess_locked(Entries::iterator kept) {
    while (entries_.size() > K_MAX_ASSEMBLIES || held_ > K_MAX_HELD_SIZE) {
        auto const oldest = entries_.begin() == kept ? std::next(kept) : entries_.begin();
        if (oldest == entries_.end()) {
            return;
        }
        take_out_locked(oldest);
    }
}

} // namespace tessaron::bus
