#pragma once

#include "app/config_field.hpp"

#include <tuple>

/// A small field tuple for tests of the configuration.
namespace tessaron::test {

inline constexpr config::FieldSpec<char const*> K_APP_NAME{"app_name", "Who this is", "sample"};
inline constexpr config::FieldSpec<char const*> K_APP_DIR{"app_dir", "Where its data are",
                                                          "/nonexistent/sample"};
inline constexpr config::FieldSpec<long long> K_WEB_PORT{
    "web_port", "A description that is a good deal longer than forty characters", 7080};
inline constexpr auto K_SAMPLE_FIELDS = std::tie(K_APP_NAME, K_APP_DIR, K_WEB_PORT);

} // namespace tessaron::test
