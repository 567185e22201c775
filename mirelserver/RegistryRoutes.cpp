#include "mirelserver/RegistryRoutes.hpp"

#include "app/utilities/json_value.hpp"
#include "mirelserver/url_path.hpp"

#include <algorithm>

namespace mirelserver {

using tessaron::json::Value;

namespace {

constexpr char const* K_JSON = "application/json";
constexpr char const* K_BINARY = "application/octet-stream";

Reply artifact_reply(OpenFile file, std::string_view range_header) {
    Reply reply;
    reply.content_type = K_BINARY;
    reply.slice = {0, file.size};
    reply.headers.emplace_back("Accept-Ranges", "bytes");
    if (auto const wanted = parse_range(range_header, file.size)) {
        std::string const size = std::to_string(file.size);
        if (!wanted->satisfiable) {
            Reply refusal = error_reply(416, "range not satisfiable");
            refusal.headers.emplace_back("Content-Range", "bytes */" + size);
            return refusal;
        }
        reply.status = 206;
        reply.slice = wanted->range;
        std::uint64_t const last = reply.slice.offset + reply.slice.length - 1;
        reply.headers.emplace_back("Content-Range", "bytes " + std::to_string(reply.slice.offset) +
                                                        "-" + std::to_string(last) + "/" + size);
    }
    reply.file = std::move(file);
    return reply;
}

Reply index_reply(OpenFile file) {
    Reply reply;
    reply.content_type = K_JSON;
    reply.headers.emplace_back("Cache-Control", "no-cache");
    reply.slice = {0, file.size};
    reply.file = std::move(file);
    return reply;
}

} // namespace

Reply error_reply(unsigned status, std::string const& text) {
    Reply reply;
    reply.status = status;
    reply.content_type = K_JSON;
    reply.body = Value(Value::Object{{"error", text}}).dump();
    return reply;
}

Reply wrong_method_reply(char const* allowed) {
    Reply reply = error_reply(405, "method not allowed");
    reply.headers.emplace_back("Allow", allowed);
    return reply;
}

std::optional<RegistryTarget> map_registry_path(std::vector<std::string> const& components) {
    if (!std::all_of(components.begin(), components.end(), is_plain_name) ||
        components.size() < 2 || components[0] != "api" || components[1] != "packages") {
        return std::nullopt;
    }
    if (components.size() == 2) {
        return RegistryTarget{{"packages.json"}, false, true};
    }
    std::vector<std::string> file(components.begin() + 1, components.end());
    if (components.size() == 4) {
        if (file.back() == "channels") {
            file.back() = "channels.json";
        } else {
            file.emplace_back("versions.json");
        }
        return RegistryTarget{std::move(file), false, false};
    }
    if (components.size() == 7 && file.back() == "artifact") {
        return RegistryTarget{std::move(file), true, false};
    }
    return std::nullopt;
}

Reply RegistryRoutes::answer(Request const& request) const {
    auto const components = split_path(path_of_target(request.target));
    if (!components) {
        return error_reply(400, "bad request");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        return wrong_method_reply("GET, HEAD");
    }
    auto const target = map_registry_path(*components);
    auto file = target ? folder_.open(target->file) : std::nullopt;
    if (file) {
        return target->is_artifact ? artifact_reply(std::move(*file), request.range)
                                   : index_reply(std::move(*file));
    }
    if (target && target->is_package_list) {
        Reply reply;
        reply.content_type = K_JSON;
        reply.body = Value(Value::Object{{"packages", Value::Array{}}}).dump();
        return reply;
    }
    return error_reply(404, "not found");
}

} // namespace mirelserver
