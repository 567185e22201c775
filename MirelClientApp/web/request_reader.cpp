#include "MirelClientApp/web/request_reader.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <sys/socket.h>

namespace mirelclient {

namespace {

constexpr std::string_view K_HEAD_END = "\r\n\r\n";
constexpr std::string_view K_LENGTH_NAME = "content-length:";

ssize_t receive(int fd, char* buffer, std::size_t size) {
    ssize_t got = 0;
    do {
        got = ::recv(fd, buffer, size, 0);
    } while (got < 0 && errno == EINTR);
    return got;
}

/// A request that could have a body but declares no length (a chunked one, say) may go on behind
/// its head, unread.
bool may_have_undeclared_body(std::string_view raw, long declared) {
    return declared < 0 && !raw.starts_with("GET ") && !raw.starts_with("HEAD ");
}

} // namespace

long extract_content_length(std::string_view head) {
    auto const same_letter = [](char in_head, char in_name) {
        return (in_head >= 'A' && in_head <= 'Z' ? in_head - 'A' + 'a' : in_head) == in_name;
    };
    auto const* const found = std::search(head.begin(), head.end(), K_LENGTH_NAME.begin(),
                                          K_LENGTH_NAME.end(), same_letter);
    if (found == head.end()) {
        return -1;
    }
    // A terminated copy, so that the conversion cannot run on into the body.
    std::string const value(found + K_LENGTH_NAME.size(), head.end());
    return std::strtol(value.c_str(), nullptr, 10);
}

ReadOutcome read_full_request(int fd) {
    ReadOutcome outcome;
    std::string& raw = outcome.raw;
    std::array<char, 4096> buffer;
    std::size_t body_begin = 0; // 0 until the end of the head is known
    long declared = -1;
    for (;;) {
        ssize_t const got = receive(fd, buffer.data(), buffer.size());
        if (got <= 0) {
            outcome.input_may_remain = false;
            return outcome;
        }
        // A full buffer means that more may stand behind it; a shorter one emptied the socket.
        outcome.input_may_remain = static_cast<std::size_t>(got) == buffer.size();
        std::size_t const searched = raw.size();
        raw.append(buffer.data(), static_cast<std::size_t>(got));
        if (raw.size() > K_MAX_REQUEST_BYTES) {
            return {{}, true};
        }
        if (body_begin == 0) {
            std::size_t const overlap = K_HEAD_END.size() - 1;
            std::size_t const head_end =
                raw.find(K_HEAD_END, searched > overlap ? searched - overlap : 0);
            if (head_end == std::string::npos) {
                continue;
            }
            body_begin = head_end + K_HEAD_END.size();
            declared = extract_content_length(std::string_view(raw).substr(0, head_end));
        }
        std::size_t const wanted = declared < 1 ? 0 : static_cast<std::size_t>(declared);
        std::size_t const have = raw.size() - body_begin;
        if (have >= wanted) {
            outcome.input_may_remain |= have > wanted || may_have_undeclared_body(raw, declared);
            return outcome;
        }
    }
}

} // namespace mirelclient
