#pragma once

#include "mirelserver/Reply.hpp"

#include <string_view>

namespace mirelserver {

/// Whether the path is one of "/static/...": the pages of all machines load their modules from
/// there, and this server has them itself.
bool is_static_path(std::string_view path);

/// Errors: 404 and 405, in the reply.
Reply static_reply(std::string_view method, std::string_view path);

} // namespace mirelserver
