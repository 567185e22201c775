#include "mirelserver/RegistryRoutes.hpp"

#include "tests/support/TemporaryDirectory.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirelserver {
namespace {

using testing::ElementsAre;

std::vector<std::string> file_of(std::vector<std::string> const& components) {
    auto const target = map_registry_path(components);
    return target ? target->file : std::vector<std::string>{"nothing"};
}

TEST(RegistryPath, EachRouteHasItsFile) {
    EXPECT_THAT(file_of({"api", "packages"}), ElementsAre("packages.json"));
    EXPECT_THAT(file_of({"api", "packages", "n", "channels"}),
                ElementsAre("packages", "n", "channels.json"));
    EXPECT_THAT(file_of({"api", "packages", "n", "c"}),
                ElementsAre("packages", "n", "c", "versions.json"));
    EXPECT_THAT(file_of({"api", "packages", "n", "c", "v", "a", "artifact"}),
                ElementsAre("packages", "n", "c", "v", "a", "artifact"));
}

TEST(RegistryPath, OnlyTheArtifactIsAnArtifact) {
    EXPECT_TRUE(
        map_registry_path({"api", "packages", "n", "c", "v", "a", "artifact"})->is_artifact);
    EXPECT_FALSE(map_registry_path({"api", "packages", "n", "artifact"})->is_artifact);
    EXPECT_TRUE(map_registry_path({"api", "packages"})->is_package_list);
    EXPECT_FALSE(map_registry_path({"api", "packages", "n", "c"})->is_package_list);
}

TEST(RegistryPath, EveryOtherPathLeadsNowhere) {
    std::vector<std::vector<std::string>> const paths = {
        {},
        {""},
        {"api"},
        {"api", ""},
        {"api", "package"},
        {"api", "packages", ""},
        {"api", "packages", "n"},
        {"api", "packages", "n", ""},
        {"api", "packages", "..", "channels"},
        {"api", "packages", ".incoming", "channels"},
        {"api", "packages", "n/c", "channels"},
        {"api", "packages", "n", "c", "v"},
        {"api", "packages", "n", "c", "v", "a"},
        {"api", "packages", "n", "c", "v", "a", "manifest.json"},
        {"api", "packages", "n", "c", "v", "a", "artifact", "x"},
        {"packages.json"},
    };
    for (auto const& path : paths) {
        EXPECT_FALSE(map_registry_path(path)) << testing::PrintToString(path);
    }
}

class RegistryRoutesTest : public testing::Test {
protected:
    void write(std::string const& name, std::string const& text) {
        std::filesystem::create_directories(std::filesystem::path(directory_ / name).parent_path());
        ASSERT_TRUE(tessaron::write_file(directory_ / name, text, O_TRUNC));
    }
    Reply get(std::string const& target, std::string const& range = "") {
        return routes_.answer({"GET", target, range});
    }

    tessaron::test::TemporaryDirectory directory_;
    RegistryRoutes routes_{RegistryFolder(directory_.path())};
};

constexpr char const* K_ARTIFACT = "/api/packages/n/c/v/a/artifact";

TEST_F(RegistryRoutesTest, AnEmptyFolderHasAnEmptyListOfPackages) {
    Reply const reply = get("/api/packages");
    EXPECT_EQ(reply.status, 200U);
    EXPECT_EQ(reply.content_type, "application/json");
    EXPECT_EQ(reply.body, R"({"packages":[]})");
}

TEST_F(RegistryRoutesTest, AnIndexIsServedAsJsonThatIsAskedForAnew) {
    write("packages/n/c/versions.json", "{}");
    Reply const reply = get("/api/packages/n/c?x=1");
    ASSERT_TRUE(reply.file);
    EXPECT_EQ(reply.content_type, "application/json");
    EXPECT_EQ(reply.slice.length, 2U);
    EXPECT_THAT(reply.headers, ElementsAre(std::pair("Cache-Control", "no-cache")));
}

TEST_F(RegistryRoutesTest, AnArtifactIsServedWholeOrInPart) {
    write("packages/n/c/v/a/artifact", "0123456789");
    EXPECT_EQ(get(K_ARTIFACT).slice.length, 10U);
    EXPECT_EQ(get(K_ARTIFACT).content_type, "application/octet-stream");
    Reply const part = get(K_ARTIFACT, "bytes=2-4");
    EXPECT_EQ(part.status, 206U);
    EXPECT_EQ(part.slice.offset, 2U);
    EXPECT_EQ(part.slice.length, 3U);
    EXPECT_THAT(part.headers, testing::Contains(std::pair("Content-Range", "bytes 2-4/10")));
}

TEST_F(RegistryRoutesTest, ARangeBehindTheEndIsRefused) {
    write("packages/n/c/v/a/artifact", "0123456789");
    Reply const reply = get(K_ARTIFACT, "bytes=10-");
    EXPECT_EQ(reply.status, 416U);
    EXPECT_FALSE(reply.file);
    EXPECT_THAT(reply.headers, ElementsAre(std::pair("Content-Range", "bytes */10")));
}

TEST_F(RegistryRoutesTest, ErrorsAreJson) {
    EXPECT_EQ(get("/nothing").status, 404U);
    EXPECT_EQ(get("/nothing").body, R"({"error":"not found"})");
    EXPECT_EQ(get("/%zz").status, 400U);
    EXPECT_EQ(routes_.answer({"POST", "/api/packages", ""}).status, 405U);
    EXPECT_EQ(routes_.answer({"POST", "/api/packages", ""}).body,
              R"({"error":"method not allowed"})");
}

} // namespace
} // namespace mirelserver
