#include "proto/Field.hpp"

#include "proto/frame_print.hpp"

#include <algorithm>
#include <cstring>

namespace proto {

using Bytes = tessaron::CustomSpan<unsigned char>;

Field::Field(FieldDeclaration const& declaration)
    : declaration_(declaration), size_(declaration.fixed_size) {
}

unsigned long Field::get_size() const {
    return std::min(size_, declaration_.max);
}

void Field::set(void const* source) {
    unsigned long const size = get_size();
    if (size == 0 || !fits()) {
        return; // An empty one may have no source.
    }
    auto const* const bytes = static_cast<unsigned char const*>(source);
    if (has(FieldFlags::ByteSwapped)) {
        std::reverse_copy(bytes, bytes + size, begin());
    } else {
        std::memcpy(begin(), bytes, size);
    }
}

void Field::reset() {
    scratch_.fill(0);
    read_ = 0;
    offset_ = 0;
    size_ = declaration_.fixed_size;
}

bool Field::fits() const {
    return is_size_known() && size_ <= declaration_.max && get_size() <= room();
}

Field::Taken Field::take(Bytes chunk) {
    unsigned long wanted = get_size();
    if (wanted > room()) {
        if (is_size_known()) {
            return {MatchStatus::Mismatch, 0};
        }
        wanted = room();
    }
    if (read_ >= wanted) {
        return {MatchStatus::Mismatch, 0}; // It asks for more than it may ever hold.
    }
    unsigned long const count = std::min<unsigned long>(chunk.size(), wanted - read_);
    Bytes const part = chunk.subspan(0, count);
    if (declaration_.constant != nullptr &&
        std::memcmp(declaration_.constant + read_, part.data(), count) != 0) {
        return {MatchStatus::Mismatch, 1};
    }
    store(part);
    read_ += count;
    bool const complete = !is_size_known() || read_ >= size_;
    return {complete ? MatchStatus::Match : MatchStatus::Incomplete, count};
}

unsigned long Field::count_before_constant(Bytes chunk) const {
    if (declaration_.constant == nullptr) {
        return 0;
    }
    unsigned long skipped = 0;
    while (skipped < chunk.size()) {
        Bytes const rest = chunk.subspan(skipped);
        auto const* const first = static_cast<unsigned char const*>(
            std::memchr(rest.data(), declaration_.constant[0], rest.size()));
        if (first == nullptr) {
            return chunk.size();
        }
        skipped = static_cast<unsigned long>(first - chunk.data());
        unsigned long const count = std::min<unsigned long>(size_, chunk.size() - skipped);
        if (std::memcmp(declaration_.constant, first, count) == 0) {
            return skipped;
        }
        ++skipped;
    }
    return skipped;
}

void Field::store(Bytes part) {
    if (has(FieldFlags::ByteSwapped)) {
        unsigned char* const place = begin() + (get_size() - read_ - part.size());
        std::reverse_copy(part.begin(), part.end(), place);
    } else if (begin() + read_ != part.data()) { // It may be received where it stands.
        std::memcpy(begin() + read_, part.data(), part.size());
    }
}

void Field::apply_const() const {
    if (declaration_.constant != nullptr) {
        std::memcpy(begin(), declaration_.constant, get_size());
    } else {
        std::memset(begin(), 0, get_size());
    }
}

void Field::print() const {
    detail::print_field_row(*this);
}

} // namespace proto
