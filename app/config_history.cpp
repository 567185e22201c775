#include "app/config_history.hpp"

#include "app/utilities/file_io.hpp"

#include <charconv>
#include <fcntl.h>
#include <string_view>

namespace tessaron::config {

namespace {

constexpr char K_VALUE_SEPARATOR = '\x1f';
constexpr std::string_view K_TIME = "ts=";
constexpr std::string_view K_FIELD = " field=";
constexpr std::string_view K_OLD = " old=";
constexpr std::string_view K_NEW = "new=";

} // namespace

std::string format_config_change_line(std::int64_t time, std::string const& name,
                                      std::string const& old_text, std::string const& new_text) {
    std::string line;
    line.append(K_TIME).append(std::to_string(time));
    line.append(K_FIELD).append(name);
    line.append(K_OLD).append(old_text).push_back(K_VALUE_SEPARATOR);
    line.append(K_NEW).append(new_text).push_back('\n');
    return line;
}

bool append_config_change_line(std::string const& path, std::string const& line) {
    return write_file(path, line, O_APPEND);
}

std::optional<ConfigChange> parse_config_change_line(std::string const& line) {
    std::string_view text = line;
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    auto const separator = text.find(K_VALUE_SEPARATOR);
    if (separator == text.npos) {
        return std::nullopt;
    }
    std::string_view const left = text.substr(0, separator);
    std::string_view right = text.substr(separator + 1);
    auto const field = left.find(K_FIELD);
    auto const old = field == left.npos ? left.npos : left.find(K_OLD, field + K_FIELD.size());
    if (!left.starts_with(K_TIME) || old == left.npos) {
        return std::nullopt;
    }
    ConfigChange change;
    std::from_chars(left.data() + K_TIME.size(), left.data() + field, change.time);
    change.field = left.substr(field + K_FIELD.size(), old - field - K_FIELD.size());
    change.old_value = left.substr(old + K_OLD.size());
    if (right.starts_with(K_NEW)) {
        right.remove_prefix(K_NEW.size());
    }
    change.new_value = right;
    return change;
}

} // namespace tessaron::config
