#include "app/ConfigStore.hpp"

#include "app/config_history.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"

#include <ctime>
#include <fcntl.h>
#include <optional>
#include <tuple>

namespace tessaron::config {

namespace {

constexpr mode_t K_DIRECTORY_MODE = 0755;

} // namespace

void ConfigStoreBase::set_path(std::string const& path) {
    MutexLock lock(mutex_);
    path_ = path;
    load_locked();
    save_locked();
}

void ConfigStoreBase::save() {
    MutexLock lock(mutex_);
    save_locked();
}

Config ConfigStoreBase::snapshot() const {
    MutexLock lock(mutex_);
    return config_;
}

LoadReport ConfigStoreBase::last_load_report() const {
    MutexLock lock(mutex_);
    return report_;
}

std::string ConfigStoreBase::config_history_path() const {
    MutexLock lock(mutex_);
    if (path_.empty()) {
        return "";
    }
    return fs_tools::join_path(fs_tools::dir_name(path_), "config_history.log");
}

std::pair<bool, std::string> ConfigStoreBase::set_field(std::string const& name,
                                                        std::string const& value_text) {
    std::optional<ConfigField> found;
    snapshot().for_each([&](ConfigField const& field) {
        if (!found && field.name == name) {
            found = field;
        }
    });
    if (!found) {
        return {false, "unknown config field: " + name};
    }
    try {
        set_field_from_variant(name, value_text, found->default_value);
    } catch (std::exception const& error) {
        return {false, error.what()};
    }
    save();
    record_change(name, describe_config_field(*found).value, value_text);
    return {true, ""};
}

void ConfigStoreBase::set_field_from_variant(std::string const& name, std::string const& value_text,
                                             FieldDefault const& default_value) {
    FieldValue value = detail::parse_as_type_of(default_value, value_text);
    MutexLock lock(mutex_);
    config_.find_mutable(name).value = std::move(value);
}

void ConfigStoreBase::record_change(std::string const& name, std::string const& old_text,
                                    std::string const& new_text) {
    std::string const history = config_history_path();
    if (history.empty() || old_text == new_text) {
        return;
    }
    fs_tools::make_dir_once(fs_tools::dir_name(history), K_DIRECTORY_MODE);
    // A history that cannot be written must not undo a change that already holds.
    std::ignore = append_config_change_line(
        history, format_config_change_line(std::time(nullptr), name, old_text, new_text));
}

void ConfigStoreBase::load_locked() {
    report_ = LoadReport{LoadReport::Status::none, path_, {}};
    if (path_.empty()) {
        return;
    }
    std::optional<std::string> const text = read_file(path_);
    if (!text) {
        report_.status = LoadReport::Status::created;
        return;
    }
    DecodeReport const decoded = codec_.decode(*text, config_);
    report_.status = decoded.healed() ? LoadReport::Status::healed : LoadReport::Status::loaded;
    report_.issues = decoded.issues;
}

void ConfigStoreBase::save_locked() {
    if (path_.empty()) {
        return;
    }
    fs_tools::make_dir_once(fs_tools::dir_name(path_), K_DIRECTORY_MODE);
    // Where the file cannot be written the store runs on memory alone.
    std::ignore = write_file(path_, codec_.encode(config_), O_TRUNC);
}

} // namespace tessaron::config
