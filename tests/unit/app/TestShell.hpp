#pragma once

#include "app/AppShell.hpp"
#include "app/JsonConfigCodec.hpp"
#include "generated/app/bus_fields.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <tuple>
#include <unistd.h>

namespace tessaron::test {

/// A context whose files lie in a folder of their own, and whose instance lock is its own too.
class ShellFixture : public testing::Test {
protected:
    ShellFixture() {
        ::setenv("CONSOLE_APP_LOCK_SUFFIX", std::to_string(::getpid()).c_str(), 1);
        std::ignore = store_.set_field("log_dir", directory_.path());
        std::ignore = store_.set_field("app_dir", directory_.path());
        context_.emplace(store_, 0, nullptr);
    }
    ~ShellFixture() override {
        context_.reset();
        ::unsetenv("CONSOLE_APP_LOCK_SUFFIX");
    }

    std::string own_path(std::string const& file) const {
        return directory_ / ("shell-test/" + file);
    }

    static constexpr config::FieldSpec<char const*> K_APP_NAME{"app_name", "", "shell-test"};
    static constexpr config::FieldSpec<char const*> K_APP_DESCRIPTION{"app_description", "",
                                                                      "A test"};
    static constexpr config::FieldSpec<char const*> K_APP_DIR{"app_dir", "", "/nonexistent"};
    static constexpr config::FieldSpec<char const*> K_LOG_DIR{"log_dir", "", ""};
    static constexpr config::FieldSpec<long long> K_LOG_MIN_LEVEL{"log_min_level", "", 1};

    TemporaryDirectory directory_;
    config::JsonConfigCodec codec_;
    config::ConfigStore<8192> store_{std::tie(K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR,
                                              K_BUS_MULTICAST_GROUP, K_BUS_MULTICAST_PORT,
                                              K_SHARED_BUS_ADDRESS, K_LOG_DIR, K_LOG_MIN_LEVEL),
                                     codec_, ""};
    std::optional<AppContext> context_;
};

} // namespace tessaron::test
