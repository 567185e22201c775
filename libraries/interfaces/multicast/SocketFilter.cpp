#include "libraries/interfaces/multicast/SocketFilter.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <linux/filter.h>
#include <sys/socket.h>

namespace proto::interface {
namespace {

/// What the filter of a UDP socket sees before the payload.
constexpr std::size_t K_UDP_HEADER_SIZE = 8;
/// What a step can jump over.
constexpr std::size_t K_MAX_BYTES = 100;

constexpr std::uint32_t K_DROP = 0;
constexpr std::uint32_t K_WHOLE = 0xFFFFFFFF;

sock_filter load(std::uint16_t what, std::size_t offset) {
    return {static_cast<std::uint16_t>(BPF_LD | what), 0, 0, static_cast<std::uint32_t>(offset)};
}

/// Goes on with the next step if the comparison holds, else jumps over so many.
sock_filter go_on_if(std::uint16_t comparison, std::size_t value, std::size_t else_jump) {
    return {static_cast<std::uint16_t>(BPF_JMP | BPF_K | comparison), 0,
            static_cast<std::uint8_t>(else_jump), static_cast<std::uint32_t>(value)};
}

sock_filter keep(std::uint32_t size) {
    return {BPF_RET | BPF_K, 0, 0, size};
}

/// Each condition jumps to the last step, which keeps the datagram, as soon as it fails.
std::vector<sock_filter> program_for(std::vector<ByteAt> const& unwanted) {
    std::size_t end = 0;
    for (ByteAt const& byte : unwanted) {
        end = std::max(end, byte.offset + 1);
    }
    std::size_t left = 2 * unwanted.size() + 1;
    // A load from beyond the end would drop the datagram.
    std::vector<sock_filter> program{load(BPF_W | BPF_LEN, 0),
                                     go_on_if(BPF_JGE, K_UDP_HEADER_SIZE + end, left)};
    for (ByteAt const& byte : unwanted) {
        left -= 2;
        program.push_back(load(BPF_B | BPF_ABS, K_UDP_HEADER_SIZE + byte.offset));
        program.push_back(go_on_if(BPF_JEQ, byte.value, left));
    }
    program.push_back(keep(K_DROP));
    program.push_back(keep(K_WHOLE));
    return program;
}

} // namespace

bool attach_filter(int fd, std::vector<ByteAt> const& unwanted) {
    if (unwanted.size() > K_MAX_BYTES) {
        return false;
    }
    auto steps = program_for(unwanted);
    sock_fprog const program{static_cast<std::uint16_t>(steps.size()), steps.data()};
    return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)) == 0;
}

void detach_filter(int fd) {
    int const unused = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof(unused));
}

} // namespace proto::interface
