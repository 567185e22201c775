#pragma once

#include <string_view>

namespace mirelpack {

/// Order of versions as people read them: negative, zero or positive when `a` is older than, equal
/// to or newer than `b`.
///
/// Numbers compare by value ("1.10" is newer than "1.9") and missing ones count as 0 ("1.2" is
/// "1.2.0"). What follows a "-" or "~" marks a version that comes before the one without it
/// ("1.2.3-dev.9", then "1.2.3-dev.10", then "1.2.3"). What follows a "+" decides only between
/// versions that are otherwise equal. Zero only for equal texts, so that every list has one order.
int compare_versions(std::string_view a, std::string_view b);

} // namespace mirelpack
