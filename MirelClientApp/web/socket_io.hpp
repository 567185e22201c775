#pragma once

#include <string_view>

namespace mirelclient {

/// Sends all of it on a blocking socket, going on after partial sends and interrupting signals.
/// False if the peer went away, after which a part may have been sent.
[[nodiscard]] bool send_all(int fd, std::string_view bytes);

/// The same for two pieces that leave together, in one packet if they fit.
[[nodiscard]] bool send_all(int fd, std::string_view first, std::string_view second);

} // namespace mirelclient
