#include "MirelClientApp/web/route_table.hpp"

#include <cstddef>

namespace mirelclient {

namespace {

constexpr std::string_view K_REST_MARK = "...";

Segment parse_segment(std::string_view piece) {
    if (piece.size() <= 2 || !piece.starts_with('{') || !piece.ends_with('}')) {
        return {false, std::string(piece), false};
    }
    std::string_view name = piece.substr(1, piece.size() - 2);
    bool const is_rest = name.size() > K_REST_MARK.size() && name.ends_with(K_REST_MARK);
    if (is_rest) {
        name.remove_suffix(K_REST_MARK.size());
    }
    return {true, std::string(name), is_rest};
}

std::string join_from(std::vector<std::string_view> const& pieces, std::size_t index) {
    std::string joined;
    for (std::size_t i = index; i < pieces.size(); ++i) {
        if (i > index) {
            joined += '/';
        }
        joined += pieces[i];
    }
    return joined;
}

} // namespace

std::vector<Segment> split_pattern(std::string_view pattern) {
    std::vector<Segment> segments;
    for (std::string_view const piece : split(pattern, '/')) {
        segments.push_back(parse_segment(piece));
    }
    return segments;
}

std::optional<std::map<std::string, std::string>>
match_segments(std::vector<Segment> const& segments, std::vector<std::string_view> const& pieces) {
    bool const takes_rest = !segments.empty() && segments.back().is_rest;
    if (takes_rest ? pieces.size() + 1 < segments.size() : pieces.size() != segments.size()) {
        return std::nullopt;
    }
    std::map<std::string, std::string> captures;
    for (std::size_t i = 0; i < segments.size(); ++i) {
        Segment const& segment = segments[i];
        if (segment.is_rest) {
            captures[segment.text] = join_from(pieces, i);
        } else if (segment.is_param) {
            captures[segment.text] = pieces[i];
        } else if (segment.text != pieces[i]) {
            return std::nullopt;
        }
    }
    return captures;
}

} // namespace mirelclient
