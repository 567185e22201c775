#include "app/ConfigStore.hpp"

#include "app/JsonConfigCodec.hpp"
#include "app/utilities/file_io.hpp"
#include "tests/support/bus_nodes.hpp"
#include "tests/support/sample_fields.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron::config {
namespace {

using testing::HasSubstr;

class ConfigStoreBusTest : public testing::Test {
protected:
    static constexpr std::uint32_t K_CONFIG = 2200;

    ConfigStoreBusTest() {
        node.join();
        store.listen_on_bus(node.hub, proto::bus::make_identity("config", "sample", 1), K_CONFIG);
        asker = node.hub.connect(4000, proto::bus::make_identity("asker", "test", 1));
    }
    ~ConfigStoreBusTest() override { store.leave_bus(); }

    ConfigListReply list() {
        return asker->call<ConfigListReply>(K_CONFIG, "list", ConfigListRequest(), test::K_LONG)
            .value_or(ConfigListReply{false, "no reply", {}});
    }
    ConfigSetReply set(std::string const& name, std::string const& value) {
        return asker
            ->call<ConfigSetReply>(K_CONFIG, "set", ConfigSetRequest{name, value}, test::K_LONG)
            .value_or(ConfigSetReply{false, "no reply"});
    }

    test::TemporaryDirectory directory;
    JsonConfigCodec codec;
    ConfigStore<8192> store{test::K_SAMPLE_FIELDS, codec, directory / "config.json"};
    test::LoopbackBus bus;
    test::HubNode node{bus, 200};
    std::shared_ptr<tessaron::bus::LocalClient> asker;
};

TEST_F(ConfigStoreBusTest, TheListHasEveryFieldInOrderWithItsDescriptionCut) {
    ConfigListReply const reply = list();
    EXPECT_TRUE(reply.ok);
    ASSERT_EQ(reply.fields.size(), 3U);
    EXPECT_EQ(reply.fields[0].name, "app_name");
    EXPECT_EQ(reply.fields[0].description, "Who this is");
    ConfigFieldInfo const& port = reply.fields[2];
    EXPECT_EQ(port.name, "web_port");
    EXPECT_EQ(port.type, "int");
    EXPECT_EQ(port.value, "7080");
    EXPECT_EQ(port.default_value, "7080");
    EXPECT_TRUE(port.is_default);
    EXPECT_EQ(port.description, "A description that is a good deal lon...");
    EXPECT_EQ(port.description.size(), 40U);
    EXPECT_THAT(read_file(directory / "config.json").value_or(""),
                HasSubstr("A description that is a good deal longer than forty characters"));
}

TEST_F(ConfigStoreBusTest, AFieldIsSetSavedAndListed) {
    ConfigSetReply const reply = set("web_port", "8080");
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.error, "");
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 8080);
    EXPECT_THAT(read_file(directory / "config.json").value_or(""), HasSubstr("8080"));
    EXPECT_THAT(read_file(directory / "config_history.log").value_or(""),
                HasSubstr("field=web_port old=7080"));
    EXPECT_EQ(list().fields[2].value, "8080");
    EXPECT_FALSE(list().fields[2].is_default);
}

TEST_F(ConfigStoreBusTest, AnUnknownNameAndABadValueAreToldAndChangeNothing) {
    EXPECT_FALSE(set("colour", "red").ok);
    EXPECT_EQ(set("colour", "red").error, "unknown config field: colour");
    EXPECT_EQ(set("web_port", "eighty").error, "stoll");
    EXPECT_EQ(store.as_int(test::K_WEB_PORT), 7080);
}

TEST_F(ConfigStoreBusTest, AnOrderThatCannotBeReadIsAnsweredSo) {
    auto const reply = asker->request_to(K_CONFIG, "set", {1, 2, 3}, test::K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_EQ(ConfigSetReply::parse(*reply).error, "Envelope: truncated or malformed");
    EXPECT_TRUE(asker->request_to(K_CONFIG, "list", {1, 2, 3}, test::K_LONG));
}

TEST_F(ConfigStoreBusTest, AnOrderWithoutANameNamesNoField) {
    auto const reply =
        asker->request_to(K_CONFIG, "set", ConfigListRequest().build(), test::K_LONG);
    ASSERT_TRUE(reply);
    EXPECT_EQ(ConfigSetReply::parse(*reply).error, "unknown config field: ");
}

TEST_F(ConfigStoreBusTest, OffTheBusNobodyAnswers) {
    store.leave_bus();
    EXPECT_EQ(asker->request_to(K_CONFIG, "list", ConfigListRequest().build(),
                                std::chrono::milliseconds(50)),
              std::nullopt);
}

} // namespace
} // namespace tessaron::config
