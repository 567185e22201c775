#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace mirelclient {

/// One parsed request. Header names are in lower case; everything else is as sent, except that
/// `path` and `query` are percent-decoded ("+" stays a plus sign).
///
/// Thread safety: one thread at a time, the caller's duty.
struct HttpRequest {
    std::string method;                         ///< as sent, compared case-sensitively
    std::string path;                           ///< the target before the first "?", decoded
    std::map<std::string, std::string> query;   ///< a later duplicate overwrites an earlier one
    std::map<std::string, std::string> params;  ///< captures of the route that matched
    std::map<std::string, std::string> headers; ///< a later duplicate overwrites an earlier one
    std::string body;                           ///< all that stands behind the blank line
};

/// One answer, sent with "Connection: close" as the last thing on its connection.
///
/// Thread safety: one thread at a time, the caller's duty.
struct HttpResponse {
    std::int32_t status = 200;
    std::string content_type;
    std::string body;

    static HttpResponse html(std::string body, int status = 200);
    static HttpResponse json(std::string body, int status = 200);
    /// `{"error":"<message>"}`, the message through `json_escape`.
    static HttpResponse error(std::string const& message, int status);
    static HttpResponse not_found();

    /// Escapes `"`, `\` and newline, and passes every other byte unchanged, control characters
    /// included. For the texts of `error` only: all other JSON leaves through `json::Value`.
    static std::string json_escape(std::string const& text);
};

} // namespace mirelclient
