#include "app/Config.hpp"

#include "tests/support/sample_fields.hpp"

#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

TEST(Config, FieldsKeepTheOrderOfTheTuple) {
    Config const config(test::K_SAMPLE_FIELDS);
    std::vector<std::string> names;
    config.for_each([&names](ConfigField const& field) { names.push_back(field.name); });
    EXPECT_EQ(names, (std::vector<std::string>{"app_name", "app_dir", "web_port"}));
}

TEST(Config, AnUnsetFieldReadsAsItsDefault) {
    Config const config(test::K_SAMPLE_FIELDS);
    EXPECT_EQ(config.get<std::string>("app_name"), "sample");
    EXPECT_EQ(config.get<long long>("web_port"), 7080);
}

TEST(Config, ASetFieldReadsAsItsValueUntilTheReset) {
    Config config(test::K_SAMPLE_FIELDS);
    config.set<long long>("web_port", 1);
    EXPECT_EQ(config.get<long long>("web_port"), 1);
    config.reset_to_defaults();
    EXPECT_EQ(config.get<long long>("web_port"), 7080);
}

TEST(Config, AnUnknownNameIsOutOfRange) {
    Config config(test::K_SAMPLE_FIELDS);
    try {
        config.get<std::string>("colour");
        FAIL() << "an unknown field was found";
    } catch (std::out_of_range const& error) {
        EXPECT_STREQ(error.what(), "Config: no such field: colour");
    }
    EXPECT_THROW(config.set<std::string>("colour", "red"), std::out_of_range);
}

TEST(Config, AskingForAnotherTypeIsAFault) {
    Config const config(test::K_SAMPLE_FIELDS);
    EXPECT_THROW(config.get<std::string>("web_port"), std::bad_variant_access);
}

} // namespace
} // namespace tessaron::config
