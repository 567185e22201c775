#include "MirelClientApp/web/request_parser.hpp"

#include "MirelClientApp/web/url_text.hpp"

#include <algorithm>
#include <cstddef>
#include <string>

namespace mirelclient {

namespace {

constexpr std::string_view K_WHITE_SPACE = " \t\n\v\f\r";

/// Cuts the next line off the head, without its newline and one carriage return before it.
std::string_view take_line(std::string_view& head) {
    std::size_t const end = std::min(head.find('\n'), head.size());
    std::string_view line = head.substr(0, end);
    head.remove_prefix(std::min(end + 1, head.size()));
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

/// Cuts the next token off the line; empty if there is none.
std::string_view take_token(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(K_WHITE_SPACE), line.size()));
    std::string_view const token =
        line.substr(0, std::min(line.find_first_of(K_WHITE_SPACE), line.size()));
    line.remove_prefix(token.size());
    return token;
}

std::string lower_case(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return lowered;
}

void parse_header_line(std::string_view line, HttpRequest& request) {
    std::size_t const colon = line.find(':');
    if (colon == std::string_view::npos) {
        return;
    }
    std::string_view value = line.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    request.headers[lower_case(line.substr(0, colon))] = value;
}

} // namespace

std::optional<HttpRequest> parse_request(std::string_view raw) {
    std::size_t const head_end = raw.find("\r\n\r\n");
    if (head_end == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view head = raw.substr(0, head_end);

    HttpRequest request;
    std::string_view request_line = take_line(head);
    request.method = take_token(request_line);
    std::string_view const target = take_token(request_line);
    if (target.empty()) {
        return std::nullopt;
    }
    std::size_t const question_mark = std::min(target.find('?'), target.size());
    request.path = url_decode(target.substr(0, question_mark));
    if (question_mark < target.size()) {
        parse_query_string(target.substr(question_mark + 1), request.query);
    }

    while (!head.empty()) {
        parse_header_line(take_line(head), request);
    }
    request.body = raw.substr(head_end + 4);
    return request;
}

} // namespace mirelclient
