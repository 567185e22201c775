#include "MirelClientApp/updates/PackageUpdater.hpp"

#include "tests/support/wait_until.hpp"

#include <atomic>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace mirelclient {

bool operator==(UpdateStatus const& a, UpdateStatus const& b) {
    return a.phase == b.phase && a.error == b.error && a.target_version == b.target_version;
}

void PrintTo(UpdateStatus const& status, std::ostream* out) {
    *out << status.phase << " / " << status.error << " / " << status.target_version;
}

namespace {

using namespace std::chrono_literals;
using tessaron::test::wait_until;
using testing::ElementsAre;
using Request = PackageUpdater::Request;

Request const K_REQUEST{.name = "one", .version = "1.0.0", .arch = "cpu-os", .channel = "beta"};

std::string succeed(Request const& /*request*/) {
    return "";
}

/// A step that tells when it has begun and ends when it is told how.
class Gate {
public:
    std::function<std::string(Request const&)> step() {
        return [this](Request const&) {
            begun_.set_value();
            return result_.get_future().get();
        };
    }
    void wait_until_begun() { begun_.get_future().wait(); }
    void end(std::string const& error = "") { result_.set_value(error); }

private:
    std::promise<void> begun_;
    std::promise<std::string> result_;
};

TEST(PackageUpdater, APackageThatWasNeverUpdatedHasAnEmptyPhase) {
    PackageUpdater updater({succeed, succeed, succeed});
    EXPECT_EQ(updater.status("one"), UpdateStatus());
    updater.run_update_async(K_REQUEST);
    EXPECT_EQ(updater.status("two"), UpdateStatus());
}

TEST(PackageUpdater, ThePhasesAreThoseOfTheSteps) {
    Gate download;
    Gate install;
    Gate start;
    PackageUpdater updater({download.step(), install.step(), start.step()});
    updater.run_update_async(K_REQUEST);
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"downloading", "", "1.0.0"}));
    download.wait_until_begun();
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"downloading", "", "1.0.0"}));
    download.end();
    install.wait_until_begun();
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"installing", "", "1.0.0"}));
    install.end();
    start.wait_until_begun();
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"starting", "", "1.0.0"}));
    EXPECT_FALSE(updater.wait_until_idle(0ms));
    start.end();
    EXPECT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"done", "", "1.0.0"}));
}

TEST(PackageUpdater, EachStepGetsTheRequest) {
    std::vector<std::string> seen;
    auto const note = [&seen](Request const& request) {
        seen.push_back(request.name + " " + request.version + " " + request.arch + " " +
                       request.channel);
        return "";
    };
    PackageUpdater updater({note, note, note});
    updater.run_update_async(K_REQUEST);
    ASSERT_TRUE(updater.wait_until_idle(20s));
    std::string const request = "one 1.0.0 cpu-os beta";
    EXPECT_THAT(seen, ElementsAre(request, request, request));
}

TEST(PackageUpdater, AFailedStepIsTheLastAndItsTextTheError) {
    for (std::size_t failing = 0; failing < 3; ++failing) {
        std::atomic<std::size_t> taken = 0;
        auto const step = [&](std::size_t number) {
            return [&taken, failing, number](Request const&) {
                ++taken;
                return number == failing ? "it failed" : "";
            };
        };
        PackageUpdater updater({step(0), step(1), step(2)});
        updater.run_update_async(K_REQUEST);
        ASSERT_TRUE(updater.wait_until_idle(20s));
        EXPECT_EQ(updater.status("one"), (UpdateStatus{"error", "it failed", "1.0.0"}));
        EXPECT_EQ(taken, failing + 1);
    }
}

TEST(PackageUpdater, AnExceptionOfAStepIsItsError) {
    auto const fail = [](Request const&) -> std::string { throw std::runtime_error("thrown"); };
    PackageUpdater updater({succeed, fail, succeed});
    updater.run_update_async(K_REQUEST);
    ASSERT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"error", "thrown", "1.0.0"}));
}

TEST(PackageUpdater, ANewUpdateShowsAtOnceInPlaceOfTheLast) {
    std::promise<void> go_on;
    std::shared_future<void> const gate = go_on.get_future().share();
    auto const download = [gate](Request const& request) -> std::string {
        if (request.version == "2.0.0") {
            gate.wait();
        }
        return request.version == "1.0.0" ? "it failed" : "";
    };
    PackageUpdater updater({download, succeed, succeed});
    updater.run_update_async(K_REQUEST);
    ASSERT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one").phase, "error");
    updater.run_update_async({"one", "2.0.0", "cpu-os", ""});
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"downloading", "", "2.0.0"}));
    go_on.set_value();
    ASSERT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"done", "", "2.0.0"}));
}

TEST(PackageUpdater, UpdatesOfOnePackageRunSideBySideAndTheLaterWriteWins) {
    std::promise<void> first_may_end;
    std::shared_future<void> const gate = first_may_end.get_future().share();
    std::atomic<bool> first_has_begun = false;
    auto const download = [&, gate](Request const& request) {
        if (request.version == "1.0.0") {
            first_has_begun = true;
            gate.wait();
        }
        return "";
    };
    PackageUpdater updater({download, succeed, succeed});
    updater.run_update_async(K_REQUEST);
    wait_until([&] { return first_has_begun.load(); }, "the first update is under way");
    updater.run_update_async({"one", "2.0.0", "cpu-os", ""});
    updater.run_update_async({"two", "3.0.0", "cpu-os", ""});
    wait_until([&] { return updater.status("one").phase == "done"; }, "the second is done");
    EXPECT_EQ(updater.status("one").target_version, "2.0.0");
    first_may_end.set_value();
    ASSERT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one"), (UpdateStatus{"done", "", "1.0.0"}));
    EXPECT_EQ(updater.status("two"), (UpdateStatus{"done", "", "3.0.0"}));
}

TEST(PackageUpdater, TheDestructorWaitsForTheUpdatesUnderWay) {
    Gate download;
    std::atomic<bool> started = false;
    auto const start = [&started](Request const&) {
        started = true;
        return "";
    };
    auto updater =
        std::make_unique<PackageUpdater>(PackageUpdater::Steps{download.step(), succeed, start});
    updater->run_update_async(K_REQUEST);
    download.wait_until_begun();
    std::thread destruction([&] {
        updater.reset();
        EXPECT_TRUE(started);
    });
    download.end();
    destruction.join();
}

TEST(PackageUpdater, ManyUpdatesFromManyThreadsAllEnd) {
    constexpr int K_THREADS = 8;
    constexpr int K_EACH = 25;
    std::atomic<int> started = 0;
    {
        PackageUpdater updater({succeed, succeed, [&started](Request const&) {
                                    ++started;
                                    return "";
                                }});
        std::vector<std::thread> threads;
        for (int thread = 0; thread < K_THREADS; ++thread) {
            threads.emplace_back([&updater, thread] {
                for (int i = 0; i < K_EACH; ++i) {
                    updater.run_update_async({std::to_string(thread % 3), "1", "a", ""});
                    EXPECT_EQ(updater.status(std::to_string(thread % 3)).target_version, "1");
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(started, K_THREADS * K_EACH);
}

/// While it lives, no thread can be started: none could have the stack it is given.
class NoMoreThreads {
public:
    NoMoreThreads() {
        pthread_getattr_default_np(&former_);
        pthread_attr_t huge = former_;
        pthread_attr_setstacksize(&huge, std::size_t{1} << 62);
        pthread_setattr_default_np(&huge);
    }
    ~NoMoreThreads() { pthread_setattr_default_np(&former_); }
    NoMoreThreads(NoMoreThreads const&) = delete;
    NoMoreThreads& operator=(NoMoreThreads const&) = delete;

private:
    pthread_attr_t former_{};
};

TEST(PackageUpdater, AnUpdateWhoseThreadCannotBeStartedIsInErrorAtOnce) {
    PackageUpdater updater({succeed, succeed, succeed});
    {
        NoMoreThreads const none;
        EXPECT_THROW(std::thread([] {}), std::system_error);
        updater.run_update_async(K_REQUEST);
    }
    EXPECT_EQ(updater.status("one").phase, "error");
    EXPECT_NE(updater.status("one").error, "");
    EXPECT_EQ(updater.status("one").target_version, "1.0.0");
    EXPECT_TRUE(updater.wait_until_idle(0ms));
    updater.run_update_async(K_REQUEST);
    ASSERT_TRUE(updater.wait_until_idle(20s));
    EXPECT_EQ(updater.status("one").phase, "done");
}

} // namespace
} // namespace mirelclient
