#pragma once

#include "app/ConfigStore.hpp"
#include "app/JsonConfigCodec.hpp"
#include "app/utilities/fs_tools.hpp"

#include <string>
#include <string_view>
#include <tuple>

namespace tessaron::config {

namespace detail {

/// The default of the text field `name` in a tuple of field specs, or null if there is none.
template <typename... Specs>
constexpr char const* find_default(std::tuple<Specs...> const& specs, std::string_view name) {
    char const* found = nullptr;
    auto const look_at = [&](auto const& spec) {
        if constexpr (std::is_convertible_v<decltype(spec.default_value), char const*>) {
            if (found == nullptr && std::string_view(spec.name) == name) {
                found = spec.default_value;
            }
        }
    };
    std::apply([&](auto const&... spec) { (look_at(spec), ...); }, specs);
    return found;
}

} // namespace detail

/// A running store for one application's field tuple.
///
/// The file stands at `app_dir`/`app_name`/config.json as the compiled-in defaults have them: the
/// path never follows the file's own values, the command line or the environment, so that a
/// damaged or strange file is always found again.
///
/// Thread safety and errors: those of `ConfigStoreBase`.
template <auto const& Fields>
class AppConfig {
public:
    AppConfig() : store_(Fields, codec_, default_path()) {}

    ConfigStore<8192>& store() { return store_; }

    static std::string default_path() {
        constexpr char const* app_dir = detail::find_default(Fields, "app_dir");
        constexpr char const* app_name = detail::find_default(Fields, "app_name");
        static_assert(app_dir != nullptr && app_name != nullptr);
        return fs_tools::join_path(fs_tools::join_path(app_dir, app_name), "config.json");
    }

private:
    JsonConfigCodec codec_;
    ConfigStore<8192> store_;
};

} // namespace tessaron::config
