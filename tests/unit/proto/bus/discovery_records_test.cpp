#include "proto/bus/discovery_records.hpp"

#include "tests/support/cut_bytes.hpp"
#include "tests/support/topics.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace proto::bus {
namespace {

using tessaron::test::topic_named;

NodeIdentity identity() {
    return make_identity("node", "binary", 3, "group", "extra");
}

TopicsAndRoles content() {
    TopicsAndRoles all;
    all.publications = {{"temperature", "in degrees", TopicKind::EVENT, {}, false},
                        {"reset", "", TopicKind::REQUEST, {{"hard", "bool", true}}, true}};
    all.subscriptions = {topic_named("alarm.*")};
    all.roles = {"sensor", "clock"};
    all.records = {{"own", 0x01020304, 1, "own domain"}, {"far", 7, 2, "forwarded"}};
    all.modules = {{0x0a0b0c0d, "logger", {"logger.read", "logger.level"}}, {9, "mute", {}}};
    return all;
}

TEST(DiscoveryResponse, DecodesWhatWasEncoded) {
    Bytes const payload = encode_identity_topics_and_roles(identity(), content());
    EXPECT_EQ(decode_identity(payload), identity());
    EXPECT_EQ(decode_topics_and_roles_after_identity(payload), content());
}

TEST(DiscoveryResponse, HasItsPartsInOrder) {
    TopicsAndRoles all;
    all.publications = {topic_named("p")};
    all.subscriptions = {topic_named("s")};
    all.roles = {"r", "q"};
    all.records = {{"n", 0x01020304, 5, "own domain"}};
    all.modules = {{6, "m", {"t"}}};
    Bytes const payload = encode_identity_topics_and_roles(identity(), all);
    Bytes const after(payload.begin() + 204, payload.end());
    Bytes const expected{
        7,  0, 'p', 0x1F, 0x1F, '0', 0x1F, '0', 0x1F,                // publications
        7,  0, 's', 0x1F, 0x1F, '0', 0x1F, '0', 0x1F,                // subscriptions
        1,  0, 1,   0,    'n',  4,   3,    2,   1,    5,             // a record,
        10, 0, 'o', 'w',  'n',  ' ', 'd',  'o', 'm',  'a', 'i', 'n', // its note
        3,  0, 'r', '\n', 'q',                                       // roles
        1,  0, 6,   0,    0,    0,   1,    0,   'm',                 // a module,
        1,  0, 1,   0,    't',                                       // its topics
    };
    EXPECT_EQ(after, expected);
}

TEST(DiscoveryResponse, OfAMinimalSenderGivesEmptyLists) {
    EXPECT_EQ(decode_topics_and_roles_after_identity(encode_identity(identity())),
              TopicsAndRoles{});
    EXPECT_EQ(decode_topics_and_roles_after_identity({}), TopicsAndRoles{});
}

/// `part` is a beginning of `whole`.
template <typename Record>
bool begins(std::vector<Record> const& whole, std::vector<Record> const& part) {
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

TEST(DiscoveryResponse, CutAnywhereKeepsWholeRecordsAndNothingBehindTheCut) {
    TopicsAndRoles const whole = content();
    for (Bytes const& cut :
         tessaron::test::cut_everywhere(encode_identity_topics_and_roles(identity(), whole))) {
        TopicsAndRoles const read = decode_topics_and_roles_after_identity(cut);
        EXPECT_TRUE(begins(whole.publications, read.publications)) << cut.size();
        EXPECT_TRUE(begins(whole.subscriptions, read.subscriptions)) << cut.size();
        EXPECT_TRUE(begins(whole.records, read.records)) << cut.size();
        EXPECT_TRUE(begins(whole.roles, read.roles)) << cut.size();
        EXPECT_TRUE(begins(whole.modules, read.modules)) << cut.size();
        // Something is missing, and what is there has all before it there.
        EXPECT_NE(read.modules, whole.modules) << cut.size();
        EXPECT_TRUE(read.modules.empty() || read.roles == whole.roles) << cut.size();
        EXPECT_TRUE(read.roles.empty() || read.records == whole.records) << cut.size();
        EXPECT_TRUE(read.records.empty() || read.subscriptions == whole.subscriptions)
            << cut.size();
    }
}

TEST(DiscoveryResponse, ATextThatClaimsMoreThanThereIsEndsIt) {
    Bytes payload = encode_identity(identity());
    payload.insert(payload.end(), {4, 0, 'n', 'a', 'm', 'e'});
    payload.insert(payload.end(), {9, 0, 's', 'h', 'o', 'r', 't'});
    TopicsAndRoles const read = decode_topics_and_roles_after_identity(payload);
    TopicsAndRoles expected;
    expected.publications = {topic_named("name")};
    EXPECT_EQ(read, expected);
}

TEST(DiscoveryResponse, LinesThatDoNotFitStayOutAndWhatFollowsIsWhole) {
    TopicsAndRoles all = content();
    all.publications.insert(all.publications.begin() + 1, topic_named(std::string(70000, 'x')));
    TopicsAndRoles const read =
        decode_topics_and_roles_after_identity(encode_identity_topics_and_roles(identity(), all));
    EXPECT_EQ(read, content());
}

TEST(DiscoveryResponse, LinesFillATextToItsLastByte) {
    TopicsAndRoles all;
    all.roles = {std::string(40000, 'a'), std::string(25534, 'b')}; // 65535 with the newline
    EXPECT_EQ(
        decode_topics_and_roles_after_identity(encode_identity_topics_and_roles(identity(), all)),
        all);
    all.roles[1] += 'b';
    EXPECT_EQ(
        decode_topics_and_roles_after_identity(encode_identity_topics_and_roles(identity(), all))
            .roles,
        std::vector{all.roles[0]});
}

TEST(DiscoveryResponse, ANameThatIsTooLongIsCutAndWhatFollowsIsWhole) {
    TopicsAndRoles all = content();
    all.records[0].name = std::string(70000, 'n');
    all.modules[0].topics[1] = std::string(70000, 't');
    TopicsAndRoles const read =
        decode_topics_and_roles_after_identity(encode_identity_topics_and_roles(identity(), all));
    all.records[0].name.resize(65535);
    all.modules[0].topics[1].resize(65535);
    EXPECT_EQ(read, all);
}

TEST(DiscoveryRecords, AdvanceTheCursorPastTheList) {
    Bytes out{0xee};
    encode_discovery_records(out, content().records);
    std::size_t const end = out.size();
    out.push_back(0xee);
    std::size_t cursor = 1;
    EXPECT_EQ(decode_discovery_records(out.data(), out.size(), cursor), content().records);
    EXPECT_EQ(cursor, end);
}

TEST(DiscoveryRecords, CutShortMoveTheCursorToTheEnd) {
    Bytes out;
    encode_discovery_records(out, content().records);
    for (Bytes const& cut : tessaron::test::cut_everywhere(out)) {
        std::size_t cursor = 0;
        EXPECT_TRUE(
            begins(content().records, decode_discovery_records(cut.data(), cut.size(), cursor)));
        EXPECT_EQ(cursor, cut.size());
    }
}

TEST(ModuleList, AdvancesTheCursorPastTheList) {
    Bytes out{0xee};
    encode_module_list(out, content().modules);
    std::size_t const end = out.size();
    out.push_back(0xee);
    std::size_t cursor = 1;
    EXPECT_EQ(decode_module_list(out.data(), out.size(), cursor), content().modules);
    EXPECT_EQ(cursor, end);
}

TEST(ModuleList, CutShortMovesTheCursorToTheEnd) {
    Bytes out;
    encode_module_list(out, content().modules);
    for (Bytes const& cut : tessaron::test::cut_everywhere(out)) {
        std::size_t cursor = 0;
        EXPECT_TRUE(begins(content().modules, decode_module_list(cut.data(), cut.size(), cursor)));
        EXPECT_EQ(cursor, cut.size());
    }
}

TEST(ModuleList, ACursorBehindTheEndReadsNothing) {
    Bytes const out(4);
    std::size_t cursor = 5;
    EXPECT_TRUE(decode_module_list(out.data(), out.size(), cursor).empty());
    EXPECT_EQ(cursor, 4U);
}

} // namespace
} // namespace proto::bus
