#include "app/ConfigStore.hpp"

#include "app/JsonConfigCodec.hpp"
#include "app/config_history.hpp"
#include "app/utilities/file_io.hpp"
#include "app/utilities/fs_tools.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/sample_fields.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <thread>

namespace tessaron::config {
namespace {

using Status = LoadReport::Status;

class ConfigStoreTest : public testing::Test {
protected:
    ConfigStore<8192> open() { return {test::K_SAMPLE_FIELDS, codec_, path_}; }
    void write(std::string const& text) { ASSERT_TRUE(write_file(path_, text, O_TRUNC)); }
    std::string text() { return read_file(path_).value_or("(no file)"); }

    JsonConfigCodec codec_;
    test::TemporaryDirectory directory_;
    std::string path_ = directory_ / "config.json";
};

TEST_F(ConfigStoreTest, WithoutAPathNothingIsReadOrWritten) {
    ConfigStore<8192> store(test::K_SAMPLE_FIELDS, codec_, "");
    EXPECT_EQ(store.last_load_report().status, Status::none);
    EXPECT_EQ(store.config_history_path(), "");
    EXPECT_TRUE(store.set_field("web_port", "1").first);
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 1);
}

TEST_F(ConfigStoreTest, AMissingFileIsCreatedWithDefaults) {
    auto const store = open();
    EXPECT_EQ(store.last_load_report().status, Status::created);
    EXPECT_EQ(store.last_load_report().path, path_);
    EXPECT_NE(text().find("\"web_port\""), std::string::npos);
}

TEST_F(ConfigStoreTest, ACleanFileLoadsAndIsRewrittenTheSame) {
    { auto const first = open(); }
    std::string const written = text();
    auto const store = open();
    EXPECT_EQ(store.last_load_report().status, Status::loaded);
    EXPECT_EQ(text(), written);
}

TEST_F(ConfigStoreTest, ABrokenFileIsHealedAndOverwritten) {
    write("{ not json");
    auto const store = open();
    EXPECT_EQ(store.last_load_report().status, Status::healed);
    ASSERT_EQ(store.last_load_report().issues.size(), 1U);
    EXPECT_EQ(open().last_load_report().status, Status::loaded);
}

TEST_F(ConfigStoreTest, UnknownFieldsDisappearAndMissingOnesAppear) {
    write(R"({"colour":{"value":"red"},"app_name":{"value":"kept"}})");
    auto const store = open();
    EXPECT_EQ(store.last_load_report().issues.size(), 2U);
    EXPECT_EQ(text().find("colour"), std::string::npos);
    EXPECT_NE(text().find("app_dir"), std::string::npos);
    EXPECT_EQ(store.as_str(test::K_APP_NAME), "kept");
}

TEST_F(ConfigStoreTest, AFlatFieldIsRewrittenAsAnObjectWithNullValue) {
    write(R"({"app_name":{"value":null},"app_dir":{"value":null},"web_port":8080})");
    auto const store = open();
    EXPECT_EQ(store.last_load_report().status, Status::loaded);
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 7080);
    EXPECT_EQ(text().find("8080"), std::string::npos);
}

TEST_F(ConfigStoreTest, AFieldOfTheWrongTypeShowsNullAfterwards) {
    write(R"({"app_name":{"value":null},"app_dir":{"value":null},"web_port":{"value":"x"}})");
    EXPECT_EQ(open().last_load_report().issues.size(), 1U);
    EXPECT_EQ(open().last_load_report().status, Status::loaded);
}

TEST_F(ConfigStoreTest, ADirectoryWhoseParentDoesNotExistIsNotMade) {
    path_ = directory_ / "no/such/config.json";
    auto store = open();
    EXPECT_EQ(store.last_load_report().status, Status::created);
    EXPECT_TRUE(store.set_field("web_port", "1").first);
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 1);
    EXPECT_FALSE(fs_tools::path_exists(directory_ / "no"));
}

TEST_F(ConfigStoreTest, TheLastDirectoryOfThePathIsMade) {
    path_ = directory_ / "sub/config.json";
    auto const store = open();
    EXPECT_TRUE(fs_tools::is_reg(path_));
}

TEST_F(ConfigStoreTest, ASetFieldIsSavedAndRecorded) {
    auto store = open();
    EXPECT_EQ(store.set_field("web_port", "80"), std::pair(true, std::string()));
    EXPECT_EQ(open().as_int(test::K_WEB_PORT), 80);
    auto const change =
        parse_config_change_line(read_file(directory_ / "config_history.log").value_or(""));
    ASSERT_TRUE(change);
    EXPECT_EQ(change->field, "web_port");
    EXPECT_EQ(change->old_value, "7080");
    EXPECT_EQ(change->new_value, "80");
    EXPECT_GT(change->time, 1700000000);
}

TEST_F(ConfigStoreTest, SettingTheTextAFieldShowsSavesButAddsNoHistory) {
    auto store = open();
    write("gone");
    EXPECT_TRUE(store.set_field("web_port", "7080").first);
    EXPECT_NE(text(), "gone");
    EXPECT_FALSE(fs_tools::path_exists(directory_ / "config_history.log"));
}

TEST_F(ConfigStoreTest, TheIntegerConversionStopsAtTheFirstBadCharacter) {
    auto store = open();
    EXPECT_TRUE(store.set_field("web_port", "80a").first);
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 80);
}

TEST_F(ConfigStoreTest, AnUnknownNameChangesNothing) {
    auto store = open();
    EXPECT_EQ(store.set_field("colour", "red"),
              std::pair(false, std::string("unknown config field: colour")));
    EXPECT_FALSE(fs_tools::path_exists(directory_ / "config_history.log"));
}

TEST_F(ConfigStoreTest, ABadValueKeepsTheOldOne) {
    auto store = open();
    auto const [ok, error] = store.set_field("web_port", "eighty");
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, "stoll");
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 7080);
}

TEST_F(ConfigStoreTest, ReadingANameThatIsNotInTheListThrows) {
    auto const store = open();
    EXPECT_THROW(store.get<std::string>("colour"), std::out_of_range);
}

TEST_F(ConfigStoreTest, ThreadsMayReadAndSetAtOnce) {
    auto store = open();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&store, thread] {
            for (int round = 0; round < 25; ++round) {
                EXPECT_TRUE(store.set_field("web_port", std::to_string(thread)).first);
                EXPECT_LT(store.snapshot().get<long long>("web_port"), 7081);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(open().as_int(test::K_WEB_PORT), store.as_int(test::K_WEB_PORT));
}

} // namespace
} // namespace tessaron::config
