#include "bus/Envelope.hpp"
#include "package/PackageManagerService.hpp"
#include "package/package_envelopes.hpp"
#include "tests/support/ScriptedHub.hpp"
#include "tests/support/bus_nodes.hpp"
#include "tests/unit/package/PackageTest.hpp"

#include <gmock/gmock.h>
#include <optional>
#include <thread>

namespace tessaron {
namespace {

using proto::bus::Bytes;
using proto::bus::TopicKind;
using test::Collected;
using test::expect_failure;
using test::expect_success;
using test::K_LONG;
using test::wait_until;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// A service on the bus, and another node that asks it. Its packages are those of the tests without
/// a bus.
class PackageManagerServiceBusTest : public test::PackageTest {
protected:
    static constexpr std::uint32_t K_SERVICE = 1200;

    PackageManagerServiceBusTest() {
        node_.join();
        asking_.join();
        asker_ = asking_.hub.connect(4000, proto::bus::make_identity("asker", "test", 1));
        open_on(node_.hub.connect(K_SERVICE, proto::bus::make_identity("pkgmgr", "test", 1)));
    }
    ~PackageManagerServiceBusTest() override { close(); }

    template <typename Request>
    PackageManagerReply ask(std::string const& topic, Request const& request) {
        return asker_->call<PackageManagerReply>(K_SERVICE, topic, request, K_LONG)
            .value_or(PackageManagerReply::failure("no reply"));
    }
    PackageManagerReply ask_of(std::string const& name, std::string const& topic) {
        return ask(topic, PackageNameRequest{name});
    }
    /// The bytes of a reply.
    std::optional<Bytes> ask_raw(std::string const& topic, Bytes const& payload) {
        return asker_->request_to(K_SERVICE, topic, payload, K_LONG);
    }
    /// One that is not answered; when this returns, it has been dealt with.
    void ask_in_vain(std::string const& topic, Bytes const& payload) {
        std::size_t const before = warnings().size();
        auto const reply =
            asker_->request_to(K_SERVICE, topic, payload, std::chrono::milliseconds(50));
        wait_until([&] { return warnings().size() > before; }, "there is a warning");
        EXPECT_EQ(reply, std::nullopt);
    }
    static Bytes fields(std::map<std::string, std::string> texts, std::string const& data = "") {
        return bus::encode_envelope({std::move(texts), {data.begin(), data.end()}});
    }
    std::vector<std::string> warnings() const { return node_.warnings.all(); }

    bus::LocalClient& asker() { return *asker_; }

private:
    test::LoopbackBus bus_;
    test::HubNode node_{bus_, 200, "daemon"};
    test::HubNode asking_{bus_, 300, "asking"};
    std::shared_ptr<bus::LocalClient> asker_;
};

// What is served

TEST(PackageManagerServiceTopics, AreEightRequestsWithoutParametersInThisOrder) {
    test::TemporaryDirectory const directory;
    test::ScriptedHub hub;
    PackageManagerService const service(directory / "root", std::chrono::hours(1), {},
                                        hub.connect());
    auto const request = [](std::string const& topic, std::string const& description) {
        return test::ScriptedHub::Advert{topic, description, TopicKind::REQUEST, {}, false};
    };
    EXPECT_THAT(
        hub.adverts(),
        ElementsAre(
            request("pkgmgr.list_installed",
                    "Lists every installed package - name/version/arch/status"),
            request("pkgmgr.manifest", "Returns the installed manifest for one package by name"),
            request("pkgmgr.start",
                    "Starts an installed package's process if it isn't already running"),
            request("pkgmgr.stop",
                    "Stops an installed package's process and marks it administratively stopped - "
                    "it will NOT be auto-respawned until start()/restart() is called again"),
            request("pkgmgr.restart", "Stops then starts an installed package"),
            request("pkgmgr.uninstall",
                    "Stops (if running) and removes an installed package's files + registry entry"),
            request("pkgmgr.install",
                    "Installs a package from an already-downloaded, self-describing local artifact "
                    "tarball (embeds its own manifest.json - see manifest-schema) - fetching from "
                    "a registry server is the caller's own concern, not this topic's"),
            request("pkgmgr.set_launch_args",
                    "Replaces a package's extra argv entries (after its own executable path) - "
                    "takes effect on the next start/restart")));
}

TEST_F(PackageManagerServiceBusTest, TheListNeedsNoFieldsNorEvenAnEnvelope) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    for (Bytes const& payload : {Bytes(), fields({}), fields({{"name", "b"}}, "x"), Bytes{1}}) {
        auto const reply = ask_raw("pkgmgr.list_installed", payload);
        ASSERT_TRUE(reply.has_value());
        EXPECT_EQ(*reply, fields({{"status", "ok"}}, service().list_installed().data.dump()));
    }
    EXPECT_EQ(PackageManagerReply::parse(*ask_raw("pkgmgr.list_installed", {})).data.dump(),
              R"([{"arch":"arch","launch_args":[],"name":"a","started_at":0,"status":"down",)"
              R"("version":"1"}])");
}

TEST_F(PackageManagerServiceBusTest, AManifestIsTheWholeDocument) {
    ASSERT_TRUE(install("a", "1", artifact().manifest(R"({"z":[1,{"y":null}]})").build()).ok);
    EXPECT_EQ(ask_raw("pkgmgr.manifest", PackageNameRequest{"a"}.build()),
              fields({{"status", "ok"}}, R"({"z":[1,{"y":null}]})"));
}

TEST_F(PackageManagerServiceBusTest, APackageIsStoppedStartedAndRestarted) {
    ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
    pid_t const first = take_pid(path_of("a", "1") + "/pid");
    expect_success(ask_of("a", "pkgmgr.stop"));
    EXPECT_EQ(status_of("a"), "stopped");
    EXPECT_FALSE(is_alive(first));
    expect_success(ask_of("a", "pkgmgr.start"));
    EXPECT_EQ(status_of("a"), "running");
    pid_t const second = take_pid(path_of("a", "1") + "/pid");
    expect_success(ask_of("a", "pkgmgr.restart"));
    EXPECT_NE(take_pid(path_of("a", "1") + "/pid"), second);
    EXPECT_FALSE(is_alive(second));
}

TEST_F(PackageManagerServiceBusTest, AnInstallStartsThePackageUnlessItIsToldNotTo) {
    Bytes request = fields({{"name", "a"}, {"version", "1"}, {"artifact_path", sleeper()}});
    EXPECT_EQ(ask_raw("pkgmgr.install", request), fields({{"status", "ok"}}));
    EXPECT_EQ(status_of("a"), "running");
    expect_success(ask("pkgmgr.install", PackageInstallRequest{"b", "2", "any", sleeper(), false}));
    EXPECT_EQ(status_of("b"), "down");
    EXPECT_EQ(listing_of("b").at("arch").as_string(""), "any");
    // It is the supervisor that starts it.
    RespawnCooldown cooldown;
    service().supervise_once(cooldown, RespawnCooldown::Clock::now());
    EXPECT_EQ(status_of("b"), "running");
}

TEST_F(PackageManagerServiceBusTest, AnUninstallRemovesThePackage) {
    ASSERT_TRUE(install("a", "1", sleeper(), true).ok);
    expect_success(ask_of("a", "pkgmgr.uninstall"));
    EXPECT_EQ(registry(), "[]");
    EXPECT_FALSE(std::filesystem::exists(path_of("a", "1")));
}

TEST_F(PackageManagerServiceBusTest, LaunchArgumentsAreReplacedAndWithoutDataCleared) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    expect_success(ask("pkgmgr.set_launch_args", PackageArgsRequest{"a", {"-x", "it's"}}));
    EXPECT_EQ(listing_of("a").at("launch_args").dump(), R"(["-x","it's"])");
    EXPECT_EQ(ask_raw("pkgmgr.set_launch_args", fields({{"name", "a"}})),
              fields({{"status", "ok"}}));
    EXPECT_EQ(listing_of("a").at("launch_args").dump(), "[]");
}

TEST_F(PackageManagerServiceBusTest, ArgumentsThatAreNoJsonCostAWarningAndTheAskerItsTime) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    ASSERT_TRUE(service().set_launch_args("a", {"kept"}).ok);
    ask_in_vain("pkgmgr.set_launch_args", fields({{"name", "a"}}, "[\"cut"));
    EXPECT_THAT(
        warnings(),
        ElementsAre(AllOf(
            StartsWith("[bus] REQUEST handler for 'pkgmgr.set_launch_args' threw on this payload "
                       "(malformed/unexpected?): tiny_json: "),
            HasSubstr(" - dropping, requester will see a timeout"))));
    EXPECT_EQ(listing_of("a").at("launch_args").dump(), R"(["kept"])");
}

TEST_F(PackageManagerServiceBusTest, ARequestThatIsNoEnvelopeCostsAWarningAndTheAskerItsTime) {
    ask_in_vain("pkgmgr.manifest", {1, 2, 3});
    EXPECT_THAT(warnings(), ElementsAre(HasSubstr("Envelope: truncated or malformed")));
}

TEST_F(PackageManagerServiceBusTest, AFailureIsAReplyLikeAnyOther) {
    EXPECT_EQ(ask_raw("pkgmgr.manifest", PackageNameRequest{"none"}.build()),
              fields({{"status", "error"}, {"error", "manifest: \"none\" is not installed"}}));
    expect_failure(ask_of("none", "pkgmgr.start"), service().start("none").error);
    expect_failure(ask_of("none", "pkgmgr.stop"), service().stop("none").error);
    expect_failure(ask_of("none", "pkgmgr.restart"), service().restart("none").error);
    expect_failure(ask_of("none", "pkgmgr.uninstall"), "uninstall: \"none\" is not installed");
    expect_failure(ask("pkgmgr.set_launch_args", PackageArgsRequest{"none", {}}),
                   "set_launch_args: \"none\" is not installed");
    expect_failure(ask("pkgmgr.install", PackageInstallRequest()),
                   "install: name/version required");
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(PackageManagerServiceBusTest, WithoutANameNoPackageIsMeant) {
    auto const reply = ask_raw("pkgmgr.manifest", fields({}));
    EXPECT_EQ(reply, fields({{"status", "error"}, {"error", "manifest: \"\" is not installed"}}));
}

// Its end

TEST_F(PackageManagerServiceBusTest, IsLeftByAServiceThatEndsAmidRequests) {
    ASSERT_TRUE(install("a", "1", sleeper()).ok);
    std::atomic<bool> is_over{false};
    std::atomic<int> answers{0};
    std::thread asking([&] {
        while (!is_over) {
            for (char const* const topic : {"pkgmgr.list_installed", "pkgmgr.manifest"}) {
                answers += asker()
                               .request_to(K_SERVICE, topic, PackageNameRequest{"a"}.build(),
                                           std::chrono::milliseconds(50))
                               .has_value();
            }
        }
    });
    wait_until([&] { return answers > 20; }, "requests are answered");
    close();
    is_over = true;
    asking.join();
    EXPECT_EQ(
        asker().request_to(K_SERVICE, "pkgmgr.list_installed", {}, std::chrono::milliseconds(1)),
        std::nullopt);
}

TEST_F(PackageManagerServiceBusTest, AnInstallUnderWayIsEndedAndAnsweredBeforeTheServiceEnds) {
    std::string const started = scratch_ / "started";
    std::string const slow =
        artifact().file("install.sh", ": > '" + started + "'; exec sleep 1000").build();
    Collected<PackageManagerReply> replies;
    std::thread asking([&] {
        replies.add(ask("pkgmgr.install", PackageInstallRequest{"a", "1", "", slow, true}));
    });
    wait_until([&] { return std::filesystem::exists(started); }, "the script is at work");
    close();
    asking.join();
    ASSERT_EQ(replies.size(), 1U);
    expect_failure(replies.all().front(),
                   "install: install.sh exited non-zero - rolled back, nothing installed");
    EXPECT_FALSE(std::filesystem::exists(staging_of("a", "1")));
}

} // namespace
} // namespace tessaron
