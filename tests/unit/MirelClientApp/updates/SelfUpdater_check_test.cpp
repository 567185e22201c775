#include "tests/unit/MirelClientApp/updates/SelfUpdaterTest.hpp"

#include <gmock/gmock.h>

namespace mirelclient {
namespace {

using testing::ElementsAre;

class SelfUpdaterCheck : public SelfUpdaterTest {
protected:
    SelfUpdater::CheckResult check_with(std::string const& body) {
        server.answer("/api/packages/mirelclient/main", {body});
        return updater.check();
    }

    static void expect_error(SelfUpdater::CheckResult const& result, std::string const& error) {
        EXPECT_FALSE(result.update_available);
        EXPECT_EQ(result.current_version, "0.0.0");
        EXPECT_EQ(result.latest_version, "");
        EXPECT_EQ(result.arch, "cpu-os");
        EXPECT_EQ(result.error, error);
    }
};

std::string build(std::string const& version, std::string const& arch = "cpu-os") {
    return R"({"version":")" + version + R"(","arch":")" + arch + R"(","manifest":{}})";
}

std::string versions(std::string const& builds) {
    return R"({"versions":[)" + builds + "]}";
}

constexpr char const* K_NO_BUILD = "no build for arch \"cpu-os\" found in registry";

TEST_F(SelfUpdaterCheck, ANewerBuildIsAvailable) {
    SelfUpdater::CheckResult const result = check_with(versions(build("1.2.3")));
    EXPECT_TRUE(result.update_available);
    EXPECT_EQ(result.current_version, "0.0.0");
    EXPECT_EQ(result.latest_version, "1.2.3");
    EXPECT_EQ(result.arch, "cpu-os");
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(server.requests(), ElementsAre("/api/packages/mirelclient/main"));
}

TEST_F(SelfUpdaterCheck, TheNewestOfTheBuildsForThisArchCountsWhereverItStands) {
    std::string const other = build("9.0.0", "cpu-os2");
    for (std::string const& list :
         {build("1.2.3-dev.9") + "," + build("1.2.3") + "," + build("1.2.3-dev.10") + "," + other,
          build("1.2.3") + "," + other + "," + build("1.2.2"),
          other + "," + build("1.2.2") + "," + build("abc") + "," + build("1.2.3")}) {
        EXPECT_EQ(check_with(versions(list)).latest_version, "1.2.3") << list;
    }
}

TEST_F(SelfUpdaterCheck, OfEqualVersionsTheFirstIsKept) {
    EXPECT_EQ(check_with(versions(build("1.2") + "," + build("1.2.0"))).latest_version, "1.2");
}

TEST_F(SelfUpdaterCheck, TheRunningVersionIsFoundButNoUpdate) {
    for (std::string const version : {"0.0.0", "0.0.0-dev.1", "abc"}) {
        SelfUpdater::CheckResult const result = check_with(versions(build(version)));
        EXPECT_FALSE(result.update_available) << version;
        EXPECT_EQ(result.latest_version, version);
        EXPECT_EQ(result.error, "");
    }
}

TEST_F(SelfUpdaterCheck, ArchesMatchExactlyOrNotAtAll) {
    expect_error(check_with(versions(build("1.0.0", "cpu") + "," + build("1.0.0", "CPU-os") + "," +
                                     build("1.0.0", "") + "," + build("1.0.0", "cpu-os "))),
                 K_NO_BUILD);
}

TEST_F(SelfUpdaterCheck, AListWithoutABuildSaysSo) {
    expect_error(check_with(versions("")), K_NO_BUILD);
}

TEST_F(SelfUpdaterCheck, JsonOfAnotherShapeHasNoBuild) {
    for (std::string const body :
         {"5", "[]", "{}", R"({"versions":{}})", R"({"versions":[1,[]]})",
          R"({"versions":[{"arch":"cpu-os"}]})", R"({"versions":[{"arch":"cpu-os","version":1}]})",
          R"({"versions":[{"arch":"cpu-os","version":""}]})"}) {
        expect_error(check_with(body), K_NO_BUILD);
    }
}

TEST_F(SelfUpdaterCheck, AnUnreachableRegistryIsAnError) {
    expect_error(updater.check(), "couldn't reach registry"); // the server knows no such list
    registry.set_base_url("http://127.0.0.1:0");
    expect_error(updater.check(), "couldn't reach registry");
}

TEST_F(SelfUpdaterCheck, AMalformedAnswerIsAnErrorWithTheParsersText) {
    expect_error(check_with(""), "malformed registry response: tiny_json: unexpected end of input");
    expect_error(check_with("{} x"), "malformed registry response: tiny_json: trailing garbage "
                                     "after top-level value at offset 3");
}

} // namespace
} // namespace mirelclient
