#include "bus/MessageChunks.hpp"

#include <algorithm>
#include <utility>

namespace tessaron::bus {

void MessageChunks::add(std::uint16_t index, Bytes&& chunk) {
    if (index < ends_.size()) {
        replace(index, chunk);
    } else if (belongs_to_head(index, chunk.size()) && !behind_.contains(index)) {
        append(chunk);
        append_those_that_fit();
    } else {
        keep_behind(index, std::move(chunk));
    }
}

bool MessageChunks::are_all_to(std::uint16_t last) const {
    // Numbers do not repeat, so as many as the last one tells, with none beyond it, are all.
    return count() == last + std::size_t{1} && (behind_.empty() || behind_.rbegin()->first == last);
}

MessageChunks::Bytes MessageChunks::take() {
    head_.reserve(size());
    for (auto const& [index, chunk] : behind_) {
        head_.insert(head_.end(), chunk.begin(), chunk.end());
    }
    return std::move(head_);
}

bool MessageChunks::belongs_to_head(std::size_t index, std::size_t size) const {
    return index == ends_.size() && size <= head_.capacity() - head_.size();
}

void MessageChunks::append(Bytes const& chunk) {
    head_.insert(head_.end(), chunk.begin(), chunk.end());
    ends_.push_back(head_.size());
}

void MessageChunks::append_those_that_fit() {
    auto chunk = behind_.begin();
    while (chunk != behind_.end() && belongs_to_head(chunk->first, chunk->second.size())) {
        append(chunk->second);
        size_behind_ -= chunk->second.size();
        chunk = behind_.erase(chunk);
    }
}

void MessageChunks::replace(std::size_t index, Bytes const& chunk) {
    std::size_t const begin = index == 0 ? 0 : ends_[index - 1];
    std::size_t const former_size = ends_[index] - begin;
    auto const at = head_.begin() + static_cast<std::ptrdiff_t>(begin);
    if (chunk.size() == former_size) {
        std::copy(chunk.begin(), chunk.end(), at);
        return;
    }
    auto const gap = head_.erase(at, at + static_cast<std::ptrdiff_t>(former_size));
    head_.insert(gap, chunk.begin(), chunk.end());
    for (std::size_t i = index; i < ends_.size(); ++i) {
        ends_[i] = ends_[i] - former_size + chunk.size();
    }
}

void MessageChunks::keep_behind(std::uint16_t index, Bytes&& chunk) {
    Bytes& place = behind_[index];
    size_behind_ += chunk.size() - place.size();
    place = std::move(chunk);
}

} // namespace tessaron::bus
