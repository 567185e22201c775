// The sub-frames of a console stream: whatever comes is a sequence of them, however it is cut.

#include "MirelClientApp/tunnel/ConsoleFrameParser.hpp"
#include "libraries/tunnel/tunnel_frame.hpp"
#include "tests/fuzz/require.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using mirelclient::ConsoleFrameParser;

/// What was handed over, with terminal bytes put together: how they are cut is nobody's business.
struct Outcome {
    std::string terminal;
    std::vector<std::pair<std::uint8_t, std::string>> others;
    std::size_t held = 0;

    bool operator==(Outcome const&) const = default;
};

/// Feeds pieces of that size.
Outcome parse(std::string_view bytes, std::size_t piece) {
    Outcome outcome;
    ConsoleFrameParser parser;
    while (!bytes.empty()) {
        parser.feed(bytes.substr(0, piece), [&](std::uint8_t kind, std::string_view data) {
            if (kind == tessaron::tunnel::CONSOLE_BYTES) {
                outcome.terminal += data;
            } else {
                outcome.others.emplace_back(kind, data);
            }
        });
        require(parser.held() < ConsoleFrameParser::K_MAX_HELD);
        bytes.remove_prefix(std::min(piece, bytes.size()));
    }
    outcome.held = parser.held();
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    Outcome const whole = parse(bytes, std::max<std::size_t>(size, 1));
    require(whole == parse(bytes, 1));
    require(whole == parse(bytes, 3));
    require(whole.terminal.size() + whole.held <= size);
    return 0;
}
