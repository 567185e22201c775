#pragma once

#include "proto/Field.hpp"

namespace proto::detail {

/// The check of a field of unknown size that holds one JSON object or array: looks where the value
/// ends, not whether it is well formed. The field then ends there, and what was received behind it
/// is given back to the stream. The state between two chunks lies in the field's scratch.
MatchStatus scan_json(Field& field);

} // namespace proto::detail
