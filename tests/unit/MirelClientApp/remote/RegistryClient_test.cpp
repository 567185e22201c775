#include "MirelClientApp/remote/RegistryClient.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/TestHttpServer.hpp"
#include "tests/support/artifact_builder.hpp"
#include "tests/support/wait_until.hpp"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

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

TEST_F(RegistryClientTest, AfterAStopRequestEveryTransferFails) {
    server.answer("/api/packages", {"body"});
    client.request_stop();
    EXPECT_EQ(client.list_packages(), std::nullopt);
    EXPECT_TRUE(client.fetch_artifact("n", "main", "1", "arch", destination).has_value());
    EXPECT_TRUE(server.requests().empty());
}

} // namespace
} // namespace mirelclient
