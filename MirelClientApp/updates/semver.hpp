#pragma once

#include <cstdint>
#include <string>

namespace mirelclient {

/// The comparable form of a version, "MAJOR.MINOR.PATCH", perhaps with "dev.NUMBER" in what
/// follows.
struct SemverKey {
    std::int32_t major = 0;
    std::int32_t minor = 0;
    std::int32_t patch = 0;
    bool is_dev = false;
    std::int32_t dev_number = 0;
};

/// Never fails: a text without all three numbers keeps those that it has, and has no dev part; any
/// other suffix than a dev part is ignored. A number out of range holds at the nearest one within.
SemverKey parse_semver_key(std::string const& text);

/// -1, 0 or 1 for older, equal and newer. A dev build is older than the release of its number.
int compare_semver(SemverKey const& a, SemverKey const& b);
int compare_semver(std::string const& a, std::string const& b);

/// True if `a` is newer than `b`.
bool is_semver_newer(std::string const& a, std::string const& b);

} // namespace mirelclient
