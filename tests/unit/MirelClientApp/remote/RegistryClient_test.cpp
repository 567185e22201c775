#include "MirelClientApp/remote/RegistryClient.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/TestHttpServer.hpp"
#include "tests/support/artifact_builder.hpp"
#include "tests/support/wait_until.hpp"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace mirelclient {
namespace {

namespace fs = std::filesystem;
using tessaron::test::read_text;
using tessaron::test::TemporaryDirectory;
using tessaron::test::TestHttpServer;
using tessaron::test::wait_until;
using tessaron::test::write_text;
using testing::ElementsAre;

struct RegistryClientTest : testing::Test {
    TestHttpServer server;
    TemporaryDirectory directory;
    RegistryClient client{server.url()};
    std::string const destination = directory / "artifact";
    std::string const temporary = directory / "artifact.tmp";
};

TEST_F(RegistryClientTest, BuildsPackageUrlsFromTheValuesAsTheyStand) {
    RegistryClient const plain("http://registry:1");
    EXPECT_EQ(plain.package_url("n", "main", "1.0", "amd64-linux"),
              "http://registry:1/api/packages/n/main/1.0/amd64-linux");
    EXPECT_EQ(plain.package_url("a b", "c/d", "%", "'"),
              "http://registry:1/api/packages/a b/c/d/%/'");
}

TEST_F(RegistryClientTest, ListingsGiveTheBodyAsItCame) {
    server.answer("/api/packages", {"[ \"one\" ]\n\n"});
    server.answer("/api/packages/one/channels", {"channels"});
    server.answer("/api/packages/one/main", {std::string("a\0b", 3)});
    EXPECT_EQ(client.list_packages(), "[ \"one\" ]\n\n");
    EXPECT_EQ(client.list_channels("one"), "channels");
    EXPECT_EQ(client.list_versions("one", "main"), std::string("a\0b", 3));
}

TEST_F(RegistryClientTest, ABodyLargerThanAnyBufferArrivesWhole) {
    std::string body;
    for (int i = 0; i < 200'000; ++i) {
        body += std::to_string(i);
    }
    server.answer("/api/packages", {body});
    EXPECT_EQ(client.list_packages(), body);
}

TEST_F(RegistryClientTest, AnEmptyBodyIsPresent) {
    server.answer("/empty", {""});
    EXPECT_EQ(RegistryClient::fetch_body(server.url() + "/empty"), "");
}

TEST_F(RegistryClientTest, AnErrorStatusGivesNoBody) {
    EXPECT_EQ(client.list_packages(), std::nullopt);
    EXPECT_THAT(server.requests(), ElementsAre("/api/packages"));
}

TEST_F(RegistryClientTest, ATransferThatBreaksOffGivesNoBodyThoughTextWasRead) {
    server.answer("/broken", {"half", 1000});
    EXPECT_EQ(RegistryClient::fetch_body(server.url() + "/broken"), std::nullopt);
}

TEST_F(RegistryClientTest, ARefusedConnectionGivesNoBodyAndAFailedDownload) {
    std::string url;
    {
        TestHttpServer gone;
        url = gone.url() + "/x";
    }
    EXPECT_EQ(RegistryClient::fetch_body(url), std::nullopt);
    EXPECT_EQ(RegistryClient::download(url, destination), "download failed: " + url);
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(RegistryClientTest, FetchArtifactBringsTheFileAndLeavesNoTemporaryOne) {
    server.answer("/api/packages/n/main/1/arch/artifact", {"the artifact"});
    EXPECT_EQ(client.fetch_artifact("n", "main", "1", "arch", destination), std::nullopt);
    EXPECT_EQ(read_text(destination), "the artifact");
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(RegistryClientTest, AnErrorStatusLeavesTheOldDestinationAndNoTemporaryFile) {
    write_text(destination, "old");
    std::string const url = client.package_url("n", "main", "1", "arch") + "/artifact";
    EXPECT_EQ(client.fetch_artifact("n", "main", "1", "arch", destination),
              "download failed: " + url);
    EXPECT_EQ(read_text(destination), "old");
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(RegistryClientTest, ADownloadThatBreaksOffLeavesTheOldDestinationAndNoTemporaryFile) {
    server.answer("/broken", {"half", 1000});
    write_text(destination, "old");
    EXPECT_EQ(RegistryClient::download(server.url() + "/broken", destination),
              "download failed: " + server.url() + "/broken");
    EXPECT_EQ(read_text(destination), "old");
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(RegistryClientTest, AMissingDestinationDirectoryFailsTheDownload) {
    server.answer("/x", {"new"});
    EXPECT_EQ(RegistryClient::download(server.url() + "/x", directory / "none/artifact"),
              "download failed: " + server.url() + "/x");
}

TEST_F(RegistryClientTest, AFailedMoveLeavesTheTemporaryFile) {
    server.answer("/x", {"new"});
    write_text(destination + "/inside", "a directory cannot be replaced by a file");
    EXPECT_EQ(RegistryClient::download(server.url() + "/x", destination),
              "download succeeded but couldn't move into place: " + destination);
    EXPECT_EQ(read_text(temporary), "new");
    EXPECT_TRUE(fs::is_directory(destination));
}

TEST_F(RegistryClientTest, AnExistingDestinationIsReplacedByAnotherFileInOneStep) {
    server.answer("/x", {"new"});
    write_text(destination, "old");
    fs::create_hard_link(destination, directory / "held");
    EXPECT_EQ(RegistryClient::download(server.url() + "/x", destination), std::nullopt);
    EXPECT_EQ(read_text(destination), "new");
    EXPECT_EQ(read_text(directory / "held"), "old");
}

TEST_F(RegistryClientTest, AStaleTemporaryFileDoesNotShineThrough) {
    server.answer("/x", {"new"});
    write_text(temporary, "much longer rest of an earlier download");
    EXPECT_EQ(RegistryClient::download(server.url() + "/x", destination), std::nullopt);
    EXPECT_EQ(read_text(destination), "new");
}

TEST_F(RegistryClientTest, QuotesAndShellWordsInTheUrlReachTheServer) {
    std::string const path = "/it's'$(>canary);`id`|&\"*";
    server.answer(path, {"quoted"});
    EXPECT_EQ(RegistryClient::fetch_body(server.url() + path), "quoted");
    EXPECT_EQ(RegistryClient::download(server.url() + path, destination), std::nullopt);
    EXPECT_EQ(read_text(destination), "quoted");
    EXPECT_FALSE(fs::exists("canary"));
}

TEST_F(RegistryClientTest, QuotesAndShellWordsInTheDestinationNameAFile) {
    server.answer("/x", {"new"});
    std::string const hostile = directory / "it's '$(touch canary)' \n\\ \"; exit 1 #";
    EXPECT_EQ(RegistryClient::download(server.url() + "/x", hostile), std::nullopt);
    EXPECT_EQ(read_text(hostile), "new");
    EXPECT_FALSE(fs::exists("canary"));
}

TEST_F(RegistryClientTest, SetBaseUrlMovesTheNextTransferToTheNewServer) {
    TestHttpServer other;
    server.answer("/api/packages", {"first"});
    other.answer("/api/packages", {"second"});
    EXPECT_EQ(client.list_packages(), "first");
    client.set_base_url(other.url());
    EXPECT_EQ(client.base_url(), other.url());
    EXPECT_EQ(client.list_packages(), "second");
}

TEST_F(RegistryClientTest, TransfersOfManyThreadsDoNotMix) {
    server.answer("/api/packages/a/channels", {"of a"});
    server.answer("/api/packages/b/channels", {"of b"});
    std::optional<std::string> of_a;
    std::thread other([&] { of_a = client.list_channels("a"); });
    client.set_base_url(server.url());
    EXPECT_EQ(client.list_channels("b"), "of b");
    other.join();
    EXPECT_EQ(of_a, "of a");
}

TEST_F(RegistryClientTest, AStopRequestEndsATransferOfAServerThatHangs) {
    server.answer("/api/packages/n/main/1/arch/artifact", {"begun", 1000, true});
    ErrorText error;
    std::thread transfer(
        [&] { error = client.fetch_artifact("n", "main", "1", "arch", destination); });
    wait_until([&] { return !server.requests().empty(); }, "the server has the request");
    client.request_stop();
    transfer.join();
    EXPECT_EQ(error,
              "download failed: " + client.package_url("n", "main", "1", "arch") + "/artifact");
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_FALSE(fs::exists(destination));
}

TEST_F(RegistryClientTest, ATransferToADestinationInUseWaitsUntilThatEnds) {
    auto stalling = std::make_unique<TestHttpServer>();
    stalling->answer("/api/packages/n/main/1/arch/artifact", {"begun", 1000, true});
    server.answer("/api/packages/n/main/1/arch/artifact", {"whole"});
    client.set_base_url(stalling->url());
    ErrorText first_error;
    ErrorText second_error;
    std::thread first(
        [&] { first_error = client.fetch_artifact("n", "main", "1", "arch", destination); });
    wait_until([&] { return fs::exists(temporary); }, "the first transfer has begun its file");
    client.set_base_url(server.url());
    std::thread second(
        [&] { second_error = client.fetch_artifact("n", "main", "1", "arch", destination); });
    EXPECT_EQ(client.fetch_artifact("n", "main", "1", "arch", destination + "-of-another"),
              std::nullopt);
    EXPECT_EQ(server.requests().size(), 1U);
    stalling.reset();
    first.join();
    second.join();
    EXPECT_TRUE(first_error.has_value());
    EXPECT_EQ(second_error, std::nullopt);
    EXPECT_EQ(read_text(destination), "whole");
    EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(RegistryClientTest, AStopRequestEndsATransferThatWaitsForItsDestination) {
    server.answer("/api/packages/n/main/1/arch/artifact", {"begun", 1000, true});
    std::vector<std::thread> transfers;
    std::atomic<int> failed = 0;
    for (int i = 0; i < 4; ++i) {
        transfers.emplace_back([&] {
            failed +=
                client.fetch_artifact("n", "main", "1", "arch", destination) ==
                "download failed: " + client.package_url("n", "main", "1", "arch") + "/artifact";
        });
    }
    wait_until([&] { return fs::exists(temporary); }, "a transfer has begun its file");
    client.request_stop();
    for (std::thread& transfer : transfers) {
        transfer.join();
    }
    EXPECT_EQ(failed, 4);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_FALSE(fs::exists(temporary));
    EXPECT_FALSE(fs::exists(destination));
}

TEST_F(RegistryClientTest, TransfersToOneDestinationLeaveOneOfTheirFilesWhole) {
    // Long enough that transfers which did not wait would overlap.
    std::string const of_one(3'000'000, '1');
    std::string const of_two(2'000'000, '2');
    TestHttpServer servers[2];
    servers[0].answer("/api/packages/n/one/1/arch/artifact", {of_one});
    servers[1].answer("/api/packages/n/two/1/arch/artifact", {of_two});
    for (int round = 0; round < 20; ++round) {
        ErrorText errors[2];
        client.set_base_url(servers[0].url());
        std::thread first(
            [&] { errors[0] = client.fetch_artifact("n", "one", "1", "arch", destination); });
        wait_until([&] { return servers[0].requests().size() > static_cast<std::size_t>(round); },
                   "the first transfer has begun");
        client.set_base_url(servers[1].url());
        std::thread second(
            [&] { errors[1] = client.fetch_artifact("n", "two", "1", "arch", destination); });
        first.join();
        second.join();
        EXPECT_EQ(errors[0], std::nullopt);
        EXPECT_EQ(errors[1], std::nullopt);
        EXPECT_TRUE(read_text(destination) == of_two);
        EXPECT_FALSE(fs::exists(temporary));
    }
}

TEST_F(RegistryClientTest, AWriterOfAnEarlierTemporaryFileDoesNotWriteIntoTheNewOne) {
    server.answer("/x", {"new"});
    write_text(temporary, "old");
    std::ofstream writer(temporary, std::ios::app);
    ASSERT_EQ(RegistryClient::download(server.url() + "/x", destination), std::nullopt);
    writer << "late" << std::flush;
    EXPECT_EQ(read_text(destination), "new");
}

TEST_F(RegistryClientTest, AfterAStopRequestEveryTransferFails) {
    server.answer("/api/packages", {"body"});
    client.request_stop();
    EXPECT_EQ(client.list_packages(), std::nullopt);
    EXPECT_TRUE(client.fetch_artifact("n", "main", "1", "arch", destination).has_value());
    EXPECT_TRUE(server.requests().empty());
}

} // namespace
} // namespace mirelclient
