#include "bus/payload_text.hpp"

#include "bus/Envelope.hpp"

#include <algorithm>
#include <cstdint>

namespace tessaron::bus {
namespace {

/// A text as long as there is room, in characters that can be printed.
class PrintableText {
public:
    explicit PrintableText(PayloadTextRoom& room) : room_(room) {}

    void append(std::string_view text) noexcept {
        text = text.substr(0, room_.size() - used_);
        text.copy(room_.data() + used_, text.size());
        replace_unprintable(room_.data() + used_, text.size());
        used_ += text.size();
    }
    void append_number(std::size_t number) noexcept {
        std::array<char, 20> digits;
        std::size_t begin = digits.size();
        do {
            digits[--begin] = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0);
        append({digits.data() + begin, digits.size() - begin});
    }
    void clear() noexcept { used_ = 0; }
    bool is_empty() const noexcept { return used_ == 0; }
    std::string_view view() const noexcept { return {room_.data(), used_}; }

private:
    PayloadTextRoom& room_;
    std::size_t used_ = 0;
};

} // namespace

void replace_unprintable(char* text, std::size_t length) noexcept {
    std::replace_if(
        text, text + length,
        [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }, '.');
}

std::string_view format_bus_trace_data(proto::bus::Bytes const& payload,
                                       PayloadTextRoom& room) noexcept {
    PrintableText text(room);
    auto const data =
        detail::visit_envelope(payload, [&text](std::string_view key, std::string_view value) {
            text.append(text.is_empty() ? "" : ", ");
            text.append(key);
            text.append("=");
            text.append(value);
        });
    if (!data) {
        text.clear();
        text.append("(raw ");
        text.append_number(payload.size());
        text.append("b)");
    }
    return text.view();
}

std::string format_bus_trace_data(proto::bus::Bytes const& payload) {
    PayloadTextRoom room;
    return std::string(format_bus_trace_data(payload, room));
}

} // namespace tessaron::bus
