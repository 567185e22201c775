#include "MirelClientApp/tunnel/ConsoleFrameParser.hpp"

#include "libraries/tunnel/tunnel_frame.hpp"

#include <algorithm>
#include <utility>

namespace mirelclient {

using namespace tessaron::tunnel;

static_assert(ConsoleFrameParser::K_MAX_HELD == K_MAX_FRAME_PAYLOAD + K_CONSOLE_HEADER_SIZE);

void ConsoleFrameParser::feed(std::string_view bytes, Handler const& handler) {
    while (!bytes.empty()) {
        bytes = passed_rest_ > 0 ? pass_through(bytes, handler) : take_whole(bytes, handler);
    }
}

std::string_view ConsoleFrameParser::pass_through(std::string_view bytes, Handler const& handler) {
    std::string_view const part = bytes.substr(0, passed_rest_);
    passed_rest_ -= static_cast<std::uint32_t>(part.size());
    if (passed_kind_ == CONSOLE_BYTES) {
        handler(passed_kind_, part);
    }
    return bytes.substr(part.size());
}

std::string_view ConsoleFrameParser::take_whole(std::string_view bytes, Handler const& handler) {
    auto const hold = [this, &bytes](std::size_t wanted) {
        std::string_view const part = bytes.substr(0, wanted - std::min(wanted, held_.size()));
        held_.append(part);
        bytes.remove_prefix(part.size());
        return held_.size() >= wanted;
    };
    if (!hold(K_CONSOLE_HEADER_SIZE)) {
        return bytes;
    }
    auto const kind = static_cast<std::uint8_t>(held_[0]);
    std::uint32_t const length = read_u32(held_.data() + 1);
    if (length > K_MAX_FRAME_PAYLOAD) {
        passed_kind_ = kind;
        passed_rest_ = length;
        held_.clear();
    } else if (hold(K_CONSOLE_HEADER_SIZE + length)) {
        // Taken out first: the memory of a large one is given back, and an exception loses it.
        std::string const whole = std::exchange(held_, std::string());
        handler(kind, std::string_view(whole).substr(K_CONSOLE_HEADER_SIZE));
    }
    return bytes;
}

} // namespace mirelclient
