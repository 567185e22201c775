#pragma once

#include "app/config_field.hpp"
#include "generated/app/bus_fields.hpp"

#include <tuple>

/// All settings of portwatch: those that the frame wants to find in every application, and its own.
namespace portwatch {

using TextField = tessaron::config::FieldSpec<char const*>;
using IntField = tessaron::config::FieldSpec<long long>;

inline constexpr TextField K_APP_NAME{"app_name", "Label of the log and name of its folder",
                                      "portwatch"};
inline constexpr TextField K_APP_DESCRIPTION{"app_description", "One line for a human",
                                             "Watches TCP endpoints"};
inline constexpr TextField K_APP_DIR{"app_dir", "Folder of this application's own data",
                                     "/usr/local/daemon/portwatch"};
inline constexpr TextField K_LOG_DIR{"log_dir", "Folder of the log", "/usr/local/daemon/portwatch"};
inline constexpr IntField K_LOG_MIN_LEVEL{"log_min_level", "0=TRACE, 1=INFO, 2=WARNING, 3=ERROR",
                                          1};

// Looked at anew in each round: a change takes effect at once.
inline constexpr IntField K_INTERVAL_SECONDS{"interval_seconds", "Time from round to round", 10};
inline constexpr IntField K_CONNECT_TIMEOUT_MS{"connect_timeout_ms", "Patience with one target",
                                               1000};
inline constexpr IntField K_KEEP_CHECKS{"keep_checks", "Rows kept in the table of checks", 1000};

inline constexpr auto K_ALL_FIELDS =
    std::tie(K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR, tessaron::K_BUS_MULTICAST_GROUP,
             tessaron::K_BUS_MULTICAST_PORT, tessaron::K_SHARED_BUS_ADDRESS, K_LOG_DIR,
             K_LOG_MIN_LEVEL, K_INTERVAL_SECONDS, K_CONNECT_TIMEOUT_MS, K_KEEP_CHECKS);

} // namespace portwatch
