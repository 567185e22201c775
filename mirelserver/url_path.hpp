#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mirelserver {

/// The path of a request target: without a query, and without the "scheme://authority" that a
/// proxy's request has in front. The target itself if it has neither.
std::string_view path_of_target(std::string_view target);

/// Resolves "%41". Nothing if a "%" is not followed by two hexadecimal digits, or stands for a NUL.
std::optional<std::string> percent_decode(std::string_view text);

/// The decoded components of "/a/b/c". A "%2F" stays inside its component, and nothing is
/// collapsed: "//", "." and ".." come out as they are, for the caller to refuse. Nothing if the
/// path does not begin with "/" or cannot be decoded.
std::optional<std::vector<std::string>> split_path(std::string_view path);

/// True for a component that names something in the folder it is looked up in: it can neither
/// climb out of that folder nor name a hidden file.
bool is_plain_name(std::string_view component);

} // namespace mirelserver
