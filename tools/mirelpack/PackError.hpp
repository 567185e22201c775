#pragma once

#include <stdexcept>
#include <string>

namespace mirelpack {

/// Why a command cannot go on; `main` prints the text and exits 1.
///
/// This program is one short command from start to end, so every failure ends the process and an
/// exception is the shortest true way to say that. None crosses a library callback (see
/// `TarReader`).
class PackError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// "`what`: <text of errno>".
[[nodiscard]] PackError system_error(std::string const& what);

} // namespace mirelpack
