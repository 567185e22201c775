#include "MirelClientApp/web/response_writer.hpp"

#include "MirelClientApp/web/socket_io.hpp"

#include <array>
#include <chrono>
#include <cstddef>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <tuple>

namespace mirelclient {

namespace {

constexpr std::chrono::milliseconds K_LINGER_TIME{500};
constexpr std::size_t K_LINGER_BYTES = 4 * 1024 * 1024;

std::string assemble(HttpResponse const& response) {
    std::string text;
    text.reserve(128 + response.content_type.size() + response.body.size());
    text += "HTTP/1.1 ";
    text += std::to_string(response.status);
    text += ' ';
    text += reason_phrase(response.status);
    text += "\r\nContent-Type: ";
    text += response.content_type;
    text += "\r\nContent-Length: ";
    text += std::to_string(response.body.size());
    text += "\r\nConnection: close\r\n\r\n";
    text += response.body;
    return text;
}

} // namespace

std::string_view reason_phrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 404:
        return "Not Found";
    case 500:
        return "Internal Server Error";
    default:
        return "";
    }
}

void write_response(int fd, HttpResponse const& response) {
    std::ignore = send_all(fd, assemble(response)); // a peer that has left wants nothing more
}

void linger_close(tessaron::UniqueFd fd) {
    using Clock = std::chrono::steady_clock;
    if (::shutdown(fd.get(), SHUT_WR) != 0) {
        return;
    }
    auto const deadline = Clock::now() + K_LINGER_TIME;
    std::array<char, 4096> discarded;
    std::size_t total = 0;
    while (total < K_LINGER_BYTES) {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd input{fd.get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&input, 1, static_cast<int>(left.count())) <= 0) {
            return;
        }
        ssize_t const got = ::recv(fd.get(), discarded.data(), discarded.size(), MSG_DONTWAIT);
        if (got <= 0) {
            return;
        }
        total += static_cast<std::size_t>(got);
    }
}

} // namespace mirelclient
