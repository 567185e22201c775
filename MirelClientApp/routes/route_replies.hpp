#pragma once

#include "MirelClientApp/web/http_message.hpp"
#include "package/package_records.hpp"

#include <cstdint>
#include <string>

namespace mirelclient {

/// `{"body":<data>,"ok":true}`, or a 400 with the reply's error.
HttpResponse pkgmgr_response(tessaron::PackageManagerReply const& reply);

/// The reply's data as they stand, or a 404 with the reply's error.
HttpResponse manifest_response(tessaron::PackageManagerReply const& reply);

/// `{"ok":true}`.
HttpResponse ok_response();

/// The string at `key` of a JSON body. Empty for whatever else the body may be: no JSON, no such
/// key, a value of another type.
std::string parse_body_field(std::string const& body, std::string const& key);

/// The decimal number with which the query's text at `key` begins, 0 if it begins with none;
/// `fallback` without such a key.
std::uint64_t query_number(HttpRequest const& request, std::string const& key,
                           std::uint64_t fallback);

} // namespace mirelclient
