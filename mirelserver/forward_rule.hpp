#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirelserver {

/// A request that is another machine's to answer.
struct Forward {
    std::string client;
    std::string target; ///< What the machine is asked for.
    /// The machine's page itself: the browser is to remember whose it was.
    bool is_page = false;

    bool operator==(Forward const&) const = default;
};

/// Whose request it is:
///
///     /api/clients/<name>/proxy...     that machine's, without the prefix; at least "/"
///     /api/console/ws                  the machine's whose page the browser opened last
///
/// A page finds its own API below the prefix, but its terminal at the root; which machine that is
/// to be on only a cookie can tell. `cookies` is the "Cookie" header. Nothing for all other
/// requests, and where the cookie is missing.
std::optional<Forward> forward_of(std::string_view method, std::string_view target,
                                  std::string_view cookies);

/// A path that needs the cookie: there is no machine to ask without it.
bool is_terminal_of_a_page(std::string_view path);

/// The value of the "Set-Cookie" header that makes a browser remember this machine.
std::string page_cookie(std::string_view client);

} // namespace mirelserver
