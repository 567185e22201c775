#pragma once

#include <cstddef>
#include <cstdint>

namespace bench {

constexpr std::size_t K_PING = 64;
/// What either side writes and reads at once.
constexpr std::size_t K_CHUNK = std::size_t{64} * 1024;

/// What a connection is for, in the path of its one request, "/<letter><bytes>"; after the answer's
/// head it carries bare bytes. HTTP only so that a proxy lets it through.
inline constexpr char K_DOWNLOAD = 'd'; ///< Sends so many bytes.
inline constexpr char K_UPLOAD = 'u';   ///< Takes so many bytes, then sends one.
inline constexpr char K_ECHO = 'e';     ///< Sends each `K_PING` bytes back.

/// Serves connections on the port, each on a thread of its own, to the end of the program.
void start_backend(std::uint16_t port);

} // namespace bench
