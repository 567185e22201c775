#include "app/config_field.hpp"

#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

TEST(ConfigField, TypeNamesAreThoseOfTheFile) {
    EXPECT_EQ(detail::type_name<char const*>(), "string");
    EXPECT_EQ(detail::type_name<long long>(), "int");
}

TEST(ConfigField, TextsUpToTheLimitCrossTheWireWhole) {
    EXPECT_EQ(truncate_for_wire(std::string(40, 'a'), 40), std::string(40, 'a'));
    EXPECT_EQ(truncate_for_wire(std::string(41, 'a'), 40), std::string(37, 'a') + "...");
}

TEST(ConfigField, AFieldNeverSetShowsItsDefault) {
    ConfigFieldInfo const info =
        describe_config_field({"port", "Port", "int", {}, FieldDefault(7080LL)});
    EXPECT_EQ(info.value, "7080");
    EXPECT_EQ(info.default_value, "7080");
    EXPECT_TRUE(info.is_default);
}

TEST(ConfigField, AFieldSetToAnotherValueIsNotDefault) {
    ConfigFieldInfo const info =
        describe_config_field({"name", "Name", "string", std::string("b"), std::string("a")});
    EXPECT_EQ(info.value, "b");
    EXPECT_FALSE(info.is_default);
}

TEST(ConfigField, AFieldSetToItsDefaultCountsAsDefault) {
    EXPECT_TRUE(
        describe_config_field({"name", "Name", "string", std::string("a"), std::string("a")})
            .is_default);
}

TEST(ConfigField, TheDescriptionIsCutForTheWire) {
    ConfigFieldInfo const info =
        describe_config_field({"n", std::string(100, 'x'), "int", {}, FieldDefault(1LL)});
    EXPECT_EQ(info.description, std::string(37, 'x') + "...");
}

TEST(ConfigField, NumbersAreReadAsTheStandardConversionsReadThem) {
    EXPECT_EQ(detail::parse_value<long long>(" 80a"), 80);
    EXPECT_EQ(detail::parse_value<long long>("-5"), -5);
    EXPECT_DOUBLE_EQ(detail::parse_value<double>("2.5x"), 2.5);
    EXPECT_THROW(detail::parse_value<long long>("abc"), std::invalid_argument);
    EXPECT_THROW(detail::parse_value<long long>("99999999999999999999"), std::out_of_range);
}

TEST(ConfigField, BooleansHaveExactlyFourSpellings) {
    EXPECT_TRUE(detail::parse_value<bool>("true"));
    EXPECT_TRUE(detail::parse_value<bool>("1"));
    EXPECT_FALSE(detail::parse_value<bool>("false"));
    EXPECT_FALSE(detail::parse_value<bool>("0"));
    try {
        detail::parse_value<bool>("yes");
        FAIL() << "\"yes\" was accepted";
    } catch (std::exception const& error) {
        EXPECT_STREQ(error.what(), "not a bool: yes");
    }
}

TEST(ConfigField, EveryValueReadsBackFromItsText) {
    EXPECT_EQ(detail::parse_value<double>(detail::value_to_string(0.1)), 0.1);
    EXPECT_EQ(detail::parse_value<bool>(detail::value_to_string(true)), true);
    EXPECT_EQ(std::get<long long>(detail::parse_as_type_of(FieldDefault(1LL), "7")), 7);
    EXPECT_EQ(std::get<std::string>(detail::parse_as_type_of(FieldDefault(std::string()), " 7 ")),
              " 7 ");
}

} // namespace
} // namespace tessaron::config
