#include "app/AppConfig.hpp"

#include "tests/support/sample_fields.hpp"

#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

TEST(AppConfig, ThePathFollowsTheCompiledInDefaultsAlone) {
    EXPECT_EQ(AppConfig<test::K_SAMPLE_FIELDS>::default_path(),
              "/nonexistent/sample/sample/config.json");
    AppConfig<test::K_SAMPLE_FIELDS> config;
    ASSERT_TRUE(config.store().set_field("app_dir", "/elsewhere").first);
    EXPECT_EQ(config.store().config_history_path(),
              "/nonexistent/sample/sample/config_history.log");
}

TEST(AppConfig, DefaultsAreFoundByNameAndOnlyTexts) {
    static_assert(detail::find_default(test::K_SAMPLE_FIELDS, "app_name") ==
                  std::string_view("sample"));
    static_assert(detail::find_default(test::K_SAMPLE_FIELDS, "web_port") == nullptr);
    static_assert(detail::find_default(test::K_SAMPLE_FIELDS, "colour") == nullptr);
}

} // namespace
} // namespace tessaron::config
