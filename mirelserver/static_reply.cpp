#include "mirelserver/static_reply.hpp"

#include "libraries/assets/assets.hpp"

namespace mirelserver {

bool is_static_path(std::string_view path) {
    return path.starts_with("/static/");
}

Reply static_reply(std::string_view method, std::string_view path) {
    if (method != "GET" && method != "HEAD") {
        return wrong_method_reply("GET, HEAD");
    }
    auto const file = mirelclient::find_static_file(path);
    if (!file) {
        return error_reply(404, "not found");
    }
    Reply reply;
    reply.content_type = file->content_type;
    reply.body = file->content;
    return reply;
}

} // namespace mirelserver
