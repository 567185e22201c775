#pragma once

#include <string_view>

namespace tessaron::bus {

/// Whether a topic stands for several; `proto::bus::glob_match` says which.
inline bool is_glob_pattern(std::string_view topic) {
    return topic.find('*') != std::string_view::npos;
}

} // namespace tessaron::bus
