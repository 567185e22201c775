#include "MirelClientApp/web/url_text.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace mirelclient {

std::vector<std::string_view> split(std::string_view text, char delimiter) {
    std::vector<std::string_view> pieces;
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t const end = std::min(text.find(delimiter, begin), text.size());
        if (end > begin) {
            pieces.push_back(text.substr(begin, end - begin));
        }
        begin = end + 1;
    }
    return pieces;
}

std::string url_decode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && text.size() - i > 2) {
            char const digits[] = {text[i + 1], text[i + 2], '\0'};
            char* end = nullptr;
            long const value = std::strtol(digits, &end, 16);
            if (end == digits + 2) {
                decoded += static_cast<char>(value);
                i += 2;
                continue;
            }
        }
        decoded += text[i];
    }
    return decoded;
}

void parse_query_string(std::string_view text, std::map<std::string, std::string>& out) {
    for (std::string_view const piece : split(text, '&')) {
        std::size_t const equals = std::min(piece.find('='), piece.size());
        std::string_view const value =
            equals < piece.size() ? piece.substr(equals + 1) : std::string_view();
        out[url_decode(piece.substr(0, equals))] = url_decode(value);
    }
}

} // namespace mirelclient
