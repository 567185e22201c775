// A browser's request and a machine's answer on their way through the proxy: what is passed on is
// one head, of one request or answer, and says what was read from it.

#include "mirelserver/DirectChannel.hpp"
#include "mirelserver/forward_rule.hpp"
#include "mirelserver/proxy_head.hpp"
#include "tests/fuzz/require.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace {

namespace http = boost::beast::http;
using Parser = http::request_parser<http::empty_body>;
using namespace mirelserver;

constexpr std::string_view K_HEAD_END = "\r\n\r\n";

std::string_view view_of(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

/// Reads a head as the server does; false if it refuses it.
bool parse(Parser& parser, std::string_view head) {
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    boost::system::error_code error;
    parser.put(boost::asio::buffer(head.data(), head.size()), error);
    return !error && parser.is_header_done();
}

void require_one_head(std::string_view head) {
    require(head.find(K_HEAD_END) == head.size() - K_HEAD_END.size());
}

void require_remembered(std::string const& client) {
    std::string const set = page_cookie(client);
    require(set.find_first_of("\r\n") == std::string::npos);
    auto const back = forward_of("GET", "/api/console/ws", set.substr(0, set.find(';')));
    // A NUL is in no machine's name, and is not read back.
    require(back ? back->client == client : client.find('\0') != std::string::npos);
}

void pass_request(std::string_view head) {
    Parser parser;
    if (!parse(parser, head)) {
        return;
    }
    auto const& request = parser.get();
    auto const forward = forward_of(view_of(request.method_string()), view_of(request.target()),
                                    view_of(request[http::field::cookie]));
    if (!forward) {
        return;
    }
    require(forward->target.starts_with('/'));
    require_remembered(forward->client);
    std::string const passed = forwarded_head(request, *forward, "host:1");
    require_one_head(passed);
    Parser again;
    require(parse(again, passed));
    auto const& seen = again.get();
    require(seen.method_string() == request.method_string());
    require(view_of(seen.target()) == forward->target);
    require(seen.count(http::field::host) == 1 && seen[http::field::host] == "host:1");
    require(seen.count(http::field::connection) == 1);
    require(asks_for_upgrade(seen) == asks_for_upgrade(request));
    require(again.content_length() == parser.content_length());
    require(again.chunked() == parser.chunked());
}

void pass_answer(std::string_view bytes) {
    auto const end = bytes.find(K_HEAD_END);
    if (end == std::string_view::npos) {
        return;
    }
    std::string_view const head = bytes.substr(0, end + K_HEAD_END.size());
    std::string const passed = answered_head(head, "a=b");
    if (passed.empty()) {
        return;
    }
    require_one_head(passed);
    require(passed.starts_with("HTTP/1."));
    require(passed.ends_with("\r\nSet-Cookie: a=b\r\nConnection: close\r\n\r\n"));
}

void dial(std::string_view text) {
    if (auto const address = parse_web_address(text)) {
        require(!address->host.empty() && !address->port.empty());
        require(address->authority.find_first_of(std::string_view(" /\r\n\0", 5)) ==
                std::string::npos);
    }
}

} // namespace

/// A request, then an answer.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    auto const end = bytes.find(K_HEAD_END);
    std::size_t const split = end == std::string_view::npos ? size : end + K_HEAD_END.size();
    pass_request(bytes.substr(0, split));
    pass_answer(bytes.substr(split));
    pass_answer(bytes);
    dial(bytes);
    return 0;
}
