#pragma once

#include "app/utilities/file_io.hpp"

#include <string>

namespace mirelpack {

/// Holds the right to change a registry folder, among all processes of this machine, for as long
/// as it lives. The kernel gives it back when the process dies, however it dies.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError` if the lock file cannot be made.
class RegistryLock {
public:
    /// Waits for as long as another process holds the lock.
    explicit RegistryLock(std::string const& path);

private:
    tessaron::UniqueFd file_;
};

} // namespace mirelpack
