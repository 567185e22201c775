#pragma once

#include "MirelClientApp/web/http_message.hpp"
#include "MirelClientApp/web/url_text.hpp"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirelclient {

/// One piece of a route pattern: a literal, `{name}`, or `{name...}` which takes the rest of the
/// path.
struct Segment {
    bool is_param = false;
    std::string text; ///< the literal, or the parameter's name
    bool is_rest = false;
};

using HttpHandler = std::function<HttpResponse(HttpRequest const&)>;
/// Owns the socket from the moment it is called, and closes it.
using WebSocketHandler = std::function<void(int fd, HttpRequest const&)>;

struct Route {
    std::string method;
    std::vector<Segment> segments;
    HttpHandler handler;
};

struct WsRoute {
    std::string method;
    std::vector<Segment> segments;
    WebSocketHandler handler;
};

/// Pieces that are longer than two characters and stand in braces are parameters; a name longer
/// than three characters that ends in "..." takes the rest. "{}" is a literal, "{...}" a parameter
/// named "...".
std::vector<Segment> split_pattern(std::string_view pattern);

/// The captures of a path, or nothing if it does not fit.
std::optional<std::map<std::string, std::string>>
match_segments(std::vector<Segment> const& segments, std::vector<std::string_view> const& pieces);

/// Whether the route (`Route` or `WsRoute`) fits; its captures then replace `request.params`.
/// `pieces` is `request.path` split at "/", so that a table walk splits it once.
template <typename AnyRoute>
bool match_route(AnyRoute const& route, std::vector<std::string_view> const& pieces,
                 HttpRequest& request) {
    if (route.method != request.method) {
        return false;
    }
    auto captures = match_segments(route.segments, pieces);
    if (!captures) {
        return false;
    }
    request.params = std::move(*captures);
    return true;
}

template <typename AnyRoute>
bool match_route(AnyRoute const& route, HttpRequest& request) {
    return match_route(route, split(request.path, '/'), request);
}

} // namespace mirelclient
