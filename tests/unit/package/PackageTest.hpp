#pragma once

#include "package/PackageManagerService.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/artifact_builder.hpp"
#include "tests/support/wait_until.hpp"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <utility>

namespace tessaron::test {

/// A store in a temporary directory and a service on it, whose supervisor sleeps through the whole
/// test unless `open` is given another time: passes are made with `supervise_once`. Packages that
/// still run at the end are stopped.
class PackageTest : public testing::Test {
protected:
    /// Writes its process id into the file "pid", once per start, and runs until it is stopped.
    static constexpr char const* K_RUNS_UNTIL_STOPPED =
        "echo $$ > pid.new && mv pid.new pid && exec sleep 1000";

    /// The same for a program that runs this command, and then ends, when it is asked to end. No
    /// child of it lasts, whenever the signal comes.
    static std::string runs_until_asked(std::string const& last_command) {
        return "trap '" + last_command +
               "; exit 0' TERM; echo $$ > pid.new && mv pid.new pid; "
               "while :; do sleep 0.02; done";
    }

    PackageTest() { open(); }

    void TearDown() override {
        if (service_) {
            json::Value const packages = service().list_installed().data;
            for (json::Value const& package : packages.as_array()) {
                EXPECT_TRUE(service().stop(package.at("name").as_string("")).ok);
            }
        }
    }

    PackageManagerService& service() { return *service_; }

    void open(std::chrono::milliseconds supervise_poll = std::chrono::hours(1)) {
        service_.reset();
        service_ = std::make_unique<PackageManagerService>(root_, supervise_poll);
    }
    /// The same on the bus.
    void open_on(std::shared_ptr<bus::LocalClient> client) {
        service_.reset();
        service_ = std::make_unique<PackageManagerService>(root_, std::chrono::hours(1),
                                                           InheritedChildren(), std::move(client));
    }
    void close() { service_.reset(); }

    std::string root() const { return root_; }
    std::string registry_path() const { return root_ + "/registry.json"; }
    std::string registry() const { return read_text(registry_path()); }
    std::string path_of(std::string const& name, std::string const& version) const {
        return root_ + "/store/" + name + "/" + version;
    }
    std::string staging_of(std::string const& name, std::string const& version) const {
        return path_of(name, version) + ".staging";
    }

    ArtifactBuilder artifact() {
        return ArtifactBuilder(scratch_ / ("artifact-" + std::to_string(++artifacts_)));
    }
    std::string sleeper() { return artifact().program("run", K_RUNS_UNTIL_STOPPED).build(); }

    PackageManagerReply install(std::string const& name, std::string const& version,
                                std::string const& artifact_path, bool start = false) {
        return service().install({name, version, "arch", artifact_path, start});
    }

    json::Value listing_of(std::string const& name) {
        json::Value const packages = service().list_installed().data;
        for (json::Value const& package : packages.as_array()) {
            if (package.at("name").as_string("") == name) {
                return package;
            }
        }
        return {};
    }
    /// "running", "stopped" or "down"; empty when it is not installed.
    std::string status_of(std::string const& name) {
        return listing_of(name).at("status").as_string("");
    }
    std::string version_of(std::string const& name) {
        return listing_of(name).at("version").as_string("");
    }

    /// Waits for the id that a program wrote into `path`, and takes the file away.
    pid_t take_pid(std::string const& path) {
        if (!wait_until([&] { return std::filesystem::exists(path); }, path + " is there")) {
            return -1;
        }
        pid_t const pid = std::stoi(read_text(path));
        std::filesystem::remove(path);
        return pid;
    }

    static bool is_alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0; }

    TemporaryDirectory const scratch_;

private:
    std::string const root_ = scratch_ / "root";
    int artifacts_ = 0;
    std::unique_ptr<PackageManagerService> service_;
};

/// Compares a whole reply.
inline void expect_failure(PackageManagerReply const& reply, std::string const& error) {
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, error);
    EXPECT_TRUE(reply.data.is_null());
}
inline void expect_success(PackageManagerReply const& reply) {
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.error, "");
    EXPECT_TRUE(reply.data.is_null());
}

} // namespace tessaron::test
