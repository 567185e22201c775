#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace mirelpack {

/// What a payload holds, by path: enough to answer whether a path names a program once the payload
/// is unpacked, symbolic links included.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: none; what is not there is an empty optional.
class PayloadIndex {
public:
    enum class Kind { File, Directory, SymbolicLink, HardLink, Other };

    struct Entry {
        Kind kind = Kind::Other;
        unsigned mode = 0;
        std::string target; ///< Of a link: as stored in the tar.
    };

    /// A tar member's name without "./" and without a trailing "/"; "" for the top folder itself.
    /// Nothing if it is absolute or climbs with "..".
    static std::optional<std::string> normal_path(std::string_view member);

    /// A later entry of the same path replaces the earlier one, as it does when unpacking.
    void add(std::string const& path, Entry entry);
    bool contains(std::string const& path) const;
    /// Follows links as the installed tree would; nothing if the path leaves the payload, dangles
    /// or ends at anything but a regular file.
    std::optional<Entry> find_file(std::string const& path) const;

private:
    std::map<std::string, Entry> entries_;
};

} // namespace mirelpack
