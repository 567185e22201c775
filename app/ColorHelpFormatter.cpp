#include "app/ColorHelpFormatter.hpp"

#include "app/utilities/utf8_text.hpp"

#include <utility>

namespace tessaron::detail {
namespace {

constexpr char const* K_ANSI_BOLD = "\033[1m";
constexpr char const* K_ANSI_BOLD_CYAN = "\033[1;36m";
constexpr char const* K_ANSI_DIM = "\033[2m";

/// Newer versions of the library wrap the description and the footer to a width of their own,
/// which would count escape sequences as text and break the stamp's lines.
template <typename Formatter>
void leave_texts_as_they_are(Formatter& formatter) {
    if constexpr (requires { formatter.enable_description_formatting(false); }) {
        formatter.enable_description_formatting(false);
    }
    if constexpr (requires { formatter.enable_footer_formatting(false); }) {
        formatter.enable_footer_formatting(false);
    }
}

} // namespace

ColorHelpFormatter::ColorHelpFormatter() {
    leave_texts_as_they_are(*this);
}

std::string ColorHelpFormatter::make_group(std::string group, bool is_positional,
                                           std::vector<CLI::Option const*> options) const {
    if (group.empty() || !stdout_supports_color()) {
        return CLI::Formatter::make_group(std::move(group), is_positional, std::move(options));
    }
    std::string text = "\n" + ansi_colorize(group + ":", K_ANSI_BOLD_CYAN, true) + "\n";
    for (CLI::Option const* const option : options) {
        text += make_option(option, is_positional);
    }
    return text;
}

std::string ColorHelpFormatter::make_footer(CLI::App const* app) const {
    std::string const text = CLI::Formatter::make_footer(app);
    return ansi_colorize(text, K_ANSI_DIM, !text.empty() && stdout_supports_color());
}

std::string ColorHelpFormatter::make_description(CLI::App const* app) const {
    std::string const text = CLI::Formatter::make_description(app);
    if (text.empty()) {
        return text;
    }
    return ansi_colorize("Description:", K_ANSI_BOLD, stdout_supports_color()) + "\n    " + text;
}

std::string ColorHelpFormatter::make_usage(CLI::App const* app, std::string name) const {
    std::string text = CLI::Formatter::make_usage(app, std::move(name));
    if (!text.empty() && text.front() == '\n') {
        text.erase(0, 1);
    }
    return ansi_colorize(text, K_ANSI_BOLD, stdout_supports_color());
}

} // namespace tessaron::detail
