#pragma once

#include "proto/bus/Bytes.hpp"

#include <string>

/// Asks for a build to be fetched from the registry server and installed: an envelope like the
/// requests of the package service, see package/package_envelopes.hpp.
struct FetchInstallRequest {
    std::string name;
    std::string version;
    std::string arch;
    std::string channel; ///< Empty means "main".
    bool start_after_install = true;

    proto::bus::Bytes build() const;
    static FetchInstallRequest parse(proto::bus::Bytes const& payload);
};
