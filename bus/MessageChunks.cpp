#include "bus/MessageChunks.hpp"

#include <algorithm>
#include <utility>

namespace tessaron::bus {

void MessageChunks::add(std::uint16_t index, Bytes&& chunk) {
    if (index < ends_.size()) {
        replace(index, chunk);
    } else if (index == ends_.size()) {
        append(chunk);
        append_those_that_fit();
    } else {
        keep_for_later(index, std::move(chunk));
    }
}

void MessageChunks::append(Bytes const& chunk) {
    head_.insert(head_.end(), chunk.begin(), chunk.end());
    ends_.push_back(head_.size());
}

void MessageChunks::append_those_that_fit() {
    auto chunk = behind_gap_.begin();
    while (chunk != behind_gap_.end() && chunk->first == ends_.size()) {
        append(chunk->second);
        size_behind_gap_ -= chunk->second.size();
        chunk = behind_gap_.erase(chunk);
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

void MessageChunks::keep_for_later(std::uint16_t index, Bytes&& chunk) {
    Bytes& place = behind_gap_[index];
    size_behind_gap_ += chunk.size() - place.size();
    place = std::move(chunk);
}

} // namespace tessaron::bus
