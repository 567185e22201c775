#pragma once

#include "mirelserver/ClientTable.hpp"
#include "mirelserver/Reply.hpp"

#include <string>
#include <string_view>

namespace mirelserver {

/// Whether the path is one of
///
///     /api/clients              GET: {"clients":[{"address","age","name","tunnel"}]}
///     /api/clients/heartbeat    POST {"name","address"}: {"ok":true}
bool is_client_route(std::string_view path);

/// The answer to a request for such a path. Errors: 400 for a heartbeat that makes no sense, 405,
/// 503 if there is no room for the machine.
Reply answer_client_request(ClientTable& clients, std::string_view method, std::string_view path,
                            std::string const& body);

} // namespace mirelserver
