#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Text on a terminal: lengths are counted in UTF-8 code points, each taken for one column wide.
/// Invalid UTF-8 is never refused and never read beyond its end.
///
/// Thread safety: stateless, but for the environment and the standard output that
/// `stdout_supports_color` looks at. Errors: none.
namespace tessaron::detail {

inline constexpr char const* K_ANSI_RESET = "\033[0m";

/// Number of bytes that are not continuation bytes. Escape sequences count like any text.
std::size_t utf8_length(std::string_view text);

/// The longest prefix of at most `limit` code points; never cuts within one.
std::string_view utf8_truncate(std::string_view text, std::size_t limit);

/// Breaks at spaces, of which a run counts as one, and within words longer than `width`. A width of
/// 0 means no limit. There is always at least one line.
std::vector<std::string> wrap_text(std::string_view text, std::size_t width);

/// The text between `color` and a reset, or as it stands if not enabled or `color` is null or
/// empty.
std::string ansi_colorize(std::string_view text, char const* color, bool enabled);

/// True if standard output is a terminal and NO_COLOR is not set, not even to nothing.
bool stdout_supports_color();

} // namespace tessaron::detail
