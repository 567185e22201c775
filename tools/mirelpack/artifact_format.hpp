#pragma once

/// Names in an artifact.
namespace mirelpack {

inline constexpr char const* K_MANIFEST_NAME = "manifest.json";
inline constexpr char const* K_PAYLOAD_NAME = "payload.tar";
inline constexpr char const* K_INSTALL_SCRIPT = "install.sh";
inline constexpr char const* K_UNINSTALL_SCRIPT = "uninstall.sh";

inline constexpr unsigned K_EXECUTE_BITS = 0111;

} // namespace mirelpack
