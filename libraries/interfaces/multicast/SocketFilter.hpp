#pragma once

#include "libraries/vocabulary/IInterface.hpp"

#include <vector>

namespace proto::interface {

/// Has the system drop the datagrams of a UDP socket that have all of these bytes, before anybody
/// is woken for them. Of datagrams that have come together the first one speaks for all. False if
/// the system knows no such thing, or the bytes are too many.
bool attach_filter(int fd, std::vector<ByteAt> const& unwanted);

/// Has it drop none.
void detach_filter(int fd);

} // namespace proto::interface
