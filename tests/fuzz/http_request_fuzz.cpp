// The way of a request's bytes to its route: nothing that a client sends may do harm.

#include "MirelClientApp/web/request_parser.hpp"
#include "MirelClientApp/web/request_reader.hpp"
#include "MirelClientApp/web/route_table.hpp"
#include "MirelClientApp/web/url_text.hpp"
#include "tests/fuzz/require.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::vector<mirelclient::Route> some_routes() {
    std::vector<mirelclient::Route> routes;
    for (char const* pattern : {"/", "/api/packages", "/api/packages/{name}", "/{a}/{b}/{a}",
                                "/static/{path...}", "/{path...}", "/x/{mid...}/y", "/{}/{...}"}) {
        routes.push_back({"GET", mirelclient::split_pattern(pattern), {}});
    }
    return routes;
}

bool fits(mirelclient::Route const& route, mirelclient::HttpRequest request) {
    bool const matched = mirelclient::match_route(route, request);
    require(matched || request.params.empty());
    require(request.params.size() <= route.segments.size());
    return matched;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static std::vector<mirelclient::Route> const routes = some_routes();
    std::string_view const raw(reinterpret_cast<char const*>(data), size);

    std::map<std::string, std::string> query;
    mirelclient::parse_query_string(raw, query);
    mirelclient::extract_content_length(raw);
    // Whatever the input is as a pattern, it fits itself as a path.
    mirelclient::HttpRequest own_path;
    own_path.method = "GET";
    own_path.path = raw;
    require(fits({"GET", mirelclient::split_pattern(raw), {}}, own_path));

    if (auto request = mirelclient::parse_request(raw)) {
        require(!request->method.empty());
        require(raw.ends_with(request->body));
        request->method = "GET";
        for (mirelclient::Route const& route : routes) {
            fits(route, *request);
        }
        // Every path fits the route that takes all of it.
        require(fits(routes[5], *request));
    }
    return 0;
}
