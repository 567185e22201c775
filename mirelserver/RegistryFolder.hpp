#pragma once

#include "app/utilities/file_io.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mirelserver {

/// A file that is open for reading, with what was true of it when it was opened. Its contents stay
/// the same for as long as it is open: in a registry folder files are only ever replaced.
struct OpenFile {
    tessaron::UniqueFd fd;
    std::uint64_t size = 0;
};

/// Opens files below the registry folder and nowhere else: no symbolic link below the folder is
/// followed, whoever may have put it there.
///
/// Thread safety: immutable after construction.
/// Errors: an empty optional for whatever cannot be opened as a regular file.
class RegistryFolder {
public:
    explicit RegistryFolder(std::string root) : root_(std::move(root)) {}

    std::string const& root() const { return root_; }
    /// `components` are names, neither empty nor with a "/", "." or "..".
    std::optional<OpenFile> open(std::vector<std::string> const& components) const;

private:
    std::string root_;
};

} // namespace mirelserver
