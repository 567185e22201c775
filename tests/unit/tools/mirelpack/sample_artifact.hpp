#pragma once

#include "app/utilities/file_io.hpp"
#include "tools/mirelpack/artifact_builder.hpp"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <string>

namespace mirelpack::test {

/// A folder with one program, "bin/app", that holds `text`. Its files are as old whenever it is
/// made, because an artifact tells their age.
inline std::string make_program_folder(std::string const& folder, std::string const& text) {
    std::filesystem::create_directories(folder + "/bin");
    (void)tessaron::write_file(folder + "/bin/app", text, O_TRUNC, 0755);
    std::filesystem::file_time_type const long_ago{std::chrono::hours(24 * 365)};
    for (char const* path : {"/bin/app", "/bin", ""}) {
        std::filesystem::last_write_time(folder + path, long_ago);
    }
    return folder;
}

/// An artifact of such a folder; both stand in `directory`.
inline std::string make_artifact(std::string const& directory, std::string const& text) {
    std::string const output = directory + "/" + text + ".tar.gz";
    build_artifact(
        {make_program_folder(directory + "/" + text, text), "bin/app", "says " + text, output});
    return output;
}

} // namespace mirelpack::test
