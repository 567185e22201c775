#pragma once

namespace proto {

/// What a field's check, or a step of the parser, has found.
enum class MatchStatus : unsigned char {
    Mismatch = 0,   ///< The frame is broken here; the parser looks for the next one.
    Incomplete = 1, ///< The field needs more bytes.
    Match = 2,      ///< The field is complete and accepted.
};

/// A field's check. It is given the container, which it knows the type of: the fields that came
/// before are there to be compared with. It runs on the thread that feeds or sends, and must
/// neither block nor keep a field `Incomplete` that has no room left.
using Matcher = MatchStatus (*)(void* container);

} // namespace proto
