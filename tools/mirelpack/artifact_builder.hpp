#pragma once

#include <string>
#include <vector>

namespace mirelpack {

struct BuildRequest {
    std::string folder;      ///< Its contents become the payload.
    std::string executable;  ///< Path of the program inside it.
    std::string description; ///< Empty: none.
    std::string output;      ///< The artifact; replaced in one step when it is whole.
};

struct BuildResult {
    std::string sha256; ///< Of the payload.
    std::vector<std::string> warnings;
};

/// Makes an artifact: a gzip-compressed tar of `manifest.json` and `payload.tar`, in this order.
/// The same tree and request give the same bytes. Needs free space beside the output for the
/// uncompressed payload; memory use does not depend on its size. Throws `PackError`, and then the
/// output is what it was before.
BuildResult build_artifact(BuildRequest const& request);

} // namespace mirelpack
