#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace mirelclient {

/// Takes the sub-frames out of a console stream's bytes, however those were cut.
///
/// A sub-frame is handed over whole, once its last byte has come. The declared length has no limit,
/// so that rule alone would let a peer fill our memory: of a sub-frame that is larger than a whole
/// frame may be, terminal bytes are handed over as they come (the terminal sees one stream of bytes
/// in either case) and all others, which nobody could use, are dropped as they come. What is held
/// is always less than `K_MAX_HELD`.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: none; every sequence of bytes is a sequence of sub-frames.
class ConsoleFrameParser {
public:
    static constexpr std::size_t K_MAX_HELD = std::size_t{4} * 1024 * 1024 + 5;

    /// Called within `feed`, with data that is gone when it returns.
    using Handler = std::function<void(std::uint8_t kind, std::string_view data)>;

    void feed(std::string_view bytes, Handler const& handler);

    std::size_t held() const noexcept { return held_.size(); }

private:
    /// Both give back what they left of the bytes.
    std::string_view pass_through(std::string_view bytes, Handler const& handler);
    std::string_view take_whole(std::string_view bytes, Handler const& handler);

    /// An unfinished sub-frame from its header on.
    std::string held_;
    /// Of a sub-frame that is too large to be held: what it is, and how much of it is to come.
    std::uint8_t passed_kind_ = 0;
    std::uint32_t passed_rest_ = 0;
};

} // namespace mirelclient
