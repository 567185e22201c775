#pragma once

#include <string>

namespace tessaron {

/// What this build says of itself; fixed when it was configured.
struct BuildStamp {
    char const* version;  ///< core version, build timestamp and build machine, joined by "-"
    char const* build_ts; ///< "YYYYmmdd.HHMMSS", UTC
    char const* build_machine;
    char const* build_user;
    char const* commit; ///< "unknown" outside a checkout
    char const* build_type;
    char const* compiler; ///< name and version, which may hold blanks
    /// " version=... build_ts=... build_machine=... build_user=... commit=... build_type=...
    /// compiler=", without the compiler itself: all that a crash record says of the build, so that
    /// a crash handler has nothing to put together.
    char const* crash_header_text;
};

/// Async-signal-safe.
BuildStamp const& build_stamp() noexcept;

/// The full version text of `build_stamp`.
std::string build_version();

} // namespace tessaron
