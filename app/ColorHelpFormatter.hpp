#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tessaron::detail {

/// The command line's help, in colour where standard output is a terminal that wants it (asked for
/// anew on every call).
///
/// Thread safety: one thread at a time, the caller's duty. Errors: none.
class ColorHelpFormatter : public CLI::Formatter {
public:
    ColorHelpFormatter();

    std::string make_group(std::string group, bool is_positional,
                           std::vector<CLI::Option const*> options) const override;
    std::string make_footer(CLI::App const* app) const override;
    std::string make_description(CLI::App const* app) const override;
    std::string make_usage(CLI::App const* app, std::string name) const override;
};

} // namespace tessaron::detail
