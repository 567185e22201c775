#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace mirelclient {

/// Cuts at the delimiter and drops empty pieces: "/a//b/" gives "a", "b", and "/" gives nothing.
/// The pieces are views into `text`.
std::vector<std::string_view> split(std::string_view text, char delimiter);

/// Replaces each "%" and the two characters behind it by the byte they stand for, if `strtol` in
/// base 16 takes both; any other "%" is copied as it stands. A "+" stays a plus sign.
std::string url_decode(std::string_view text);

/// Stores the decoded "key=value" pieces of a query string; a later key overwrites an earlier
/// one, and a piece without "=" is a key with an empty value.
void parse_query_string(std::string_view text, std::map<std::string, std::string>& out);

} // namespace mirelclient
