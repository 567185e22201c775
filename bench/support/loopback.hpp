#pragma once

#include <cstdint>
#include <string_view>

/// Sockets of the benchmarks, on loopback. Whatever fails ends the program: a figure from a run
/// that did not work would mean nothing.
namespace bench {

[[noreturn]] void fail(char const* what);

/// Connected and without delay.
int dial(std::uint16_t port);
/// Open for connections; port 0 has the system choose.
int listen_on(std::uint16_t port);
std::uint16_t port_of(int listener);
/// The next connection, without delay.
int accept_on(int listener);

void send_all(int fd, std::string_view bytes);
void receive_all(int fd, char* buffer, std::size_t size);

} // namespace bench
