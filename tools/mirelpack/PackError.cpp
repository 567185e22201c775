#include "tools/mirelpack/PackError.hpp"

#include <cerrno>
#include <system_error>

namespace mirelpack {

PackError system_error(std::string const& what) {
    int const code = errno;
    return PackError(what + ": " + std::generic_category().message(code));
}

} // namespace mirelpack
