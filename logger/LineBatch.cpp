#include "logger/LineBatch.hpp"

namespace tessaron {

void LineBatch::add(LogLevel level, std::initializer_list<std::string_view> pieces) {
    for (std::string_view const piece : pieces) {
        text_.append(piece);
    }
    text_.push_back('\n');
    lines_.push_back({level, text_.size()});
}

std::string_view LineBatch::text(std::size_t index) const {
    std::size_t const begin = index == 0 ? 0 : lines_[index - 1].end;
    return std::string_view(text_).substr(begin, lines_[index].end - begin);
}

void LineBatch::clear() {
    if (text_.capacity() > K_KEPT_BYTES) {
        LineBatch().swap(*this);
    }
    text_.clear();
    lines_.clear();
}

void LineBatch::swap(LineBatch& other) noexcept {
    text_.swap(other.text_);
    lines_.swap(other.lines_);
}

} // namespace tessaron
