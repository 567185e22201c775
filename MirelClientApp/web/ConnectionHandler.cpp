#include "MirelClientApp/web/ConnectionHandler.hpp"

#include "MirelClientApp/web/request_parser.hpp"
#include "MirelClientApp/web/request_reader.hpp"
#include "MirelClientApp/web/response_writer.hpp"
#include "MirelClientApp/web/url_text.hpp"

#include <exception>
#include <string_view>
#include <utility>

namespace mirelclient {

void ConnectionHandler::retire() {
    gate_.close();
    gate_.wait_until_empty();
    // Nobody reads the tables any more: that happens within the gate only.
    routes_.clear();
    ws_routes_.clear();
}

void ConnectionHandler::handle_connection(tessaron::UniqueFd fd) {
    ReadOutcome input = read_full_request(fd.get());
    std::optional<HandlerGate::Pass> answering;
    std::optional<HttpResponse> const response = answer(fd, std::move(input.raw), answering);
    if (!response) {
        return;
    }
    write_response(fd.get(), *response);
    if (input.input_may_remain) {
        linger_close(std::move(fd));
    }
}

std::optional<HttpResponse> ConnectionHandler::answer(tessaron::UniqueFd& fd, std::string raw,
                                                      std::optional<HandlerGate::Pass>& answering) {
    if (raw.empty()) {
        return HttpResponse::error("empty or oversized request", 400);
    }
    std::optional<HttpRequest> request = parse_request(raw);
    raw = std::string(); // a handler may run long, and the request holds all of it
    if (!request) {
        return HttpResponse::error("malformed request", 400);
    }
    HandlerGate::Pass const pass(gate_);
    if (!pass.entered()) {
        return std::nullopt;
    }
    if (!ws_routes_.empty()) {
        std::vector<std::string_view> const pieces = split(request->path, '/');
        for (WsRoute const& route : ws_routes_) {
            if (match_route(route, pieces, *request)) {
                route.handler(fd.release(), *request);
                return std::nullopt;
            }
        }
    }
    answering.emplace(answers_);
    return dispatch(*request);
}

HttpResponse ConnectionHandler::dispatch(HttpRequest& request) const {
    std::vector<std::string_view> const pieces = split(request.path, '/');
    for (Route const& route : routes_) {
        if (!match_route(route, pieces, request)) {
            continue;
        }
        try {
            return route.handler(request);
        } catch (std::exception const& failure) {
            return HttpResponse::error(failure.what(), 500);
        }
    }
    return HttpResponse::not_found();
}

} // namespace mirelclient
