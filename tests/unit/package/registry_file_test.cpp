#include "package/registry_file.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/artifact_builder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessaron {
namespace {

using registry_file::from_text;
using registry_file::to_text;
using testing::ElementsAre;
using testing::IsEmpty;

PackageEntry entry_named(std::string const& name) {
    PackageEntry entry;
    entry.name = name;
    return entry;
}

TEST(RegistryFile, ANewEntryIsNotRunningAndNotStopped) {
    PackageEntry const entry;
    EXPECT_EQ(entry.name + entry.version + entry.arch + entry.install_path, "");
    EXPECT_TRUE(entry.manifest.is_null());
    EXPECT_THAT(entry.launch_args, IsEmpty());
    EXPECT_EQ(entry.pid, -1);
    EXPECT_EQ(entry.started_at, 0);
    EXPECT_FALSE(entry.administratively_stopped);
}

TEST(RegistryFile, NoEntriesAreAnEmptyArray) {
    EXPECT_EQ(to_text({}), "[]");
    EXPECT_THAT(from_text("[]"), IsEmpty());
}

TEST(RegistryFile, WritesEveryKeyInOrderAndNothingOfTheProcess) {
    PackageEntry entry = entry_named("n");
    entry.pid = 4711;
    entry.started_at = 1;
    EXPECT_EQ(to_text({{"n", entry}}),
              R"([{"administratively_stopped":false,"arch":"","install_path":"","launch_args":[],)"
              R"("manifest":null,"name":"n","version":""}])");
}

TEST(RegistryFile, ReadsBackWhatItWrote) {
    PackageEntry entry = entry_named("it's \"quoted\"\n");
    entry.version = "1.0";
    entry.arch = "amd64-linux";
    entry.install_path = "/store/\xC3\xA4";
    entry.manifest = json::Value::parse(R"({"executable":"run","deep":[{"x":[]}]})");
    entry.launch_args = {"", "a b", "\\"};
    entry.administratively_stopped = true;
    entry.pid = 4711;
    entry.started_at = 99;

    PackageEntries const read = from_text(to_text({{entry.name, entry}}));
    ASSERT_EQ(read.size(), 1u);
    ASSERT_TRUE(read.contains(entry.name));
    PackageEntry const& back = read.at(entry.name);
    EXPECT_EQ(back.name, entry.name);
    EXPECT_EQ(back.version, entry.version);
    EXPECT_EQ(back.arch, entry.arch);
    EXPECT_EQ(back.install_path, entry.install_path);
    EXPECT_EQ(back.manifest.dump(), entry.manifest.dump());
    EXPECT_EQ(back.launch_args, entry.launch_args);
    EXPECT_TRUE(back.administratively_stopped);
    EXPECT_EQ(back.pid, -1);
    EXPECT_EQ(back.started_at, 0);
}

TEST(RegistryFile, AnElementWithoutKeysLoadsAsAnEntryOfEmptyStrings) {
    for (char const* text : {"[{}]", "[1]", "[null]", "[[]]", "[\"x\"]"}) {
        PackageEntries const read = from_text(text);
        ASSERT_EQ(read.size(), 1u) << text;
        EXPECT_EQ(to_text(read), to_text({{"", PackageEntry()}})) << text;
    }
}

TEST(RegistryFile, ValuesOfTheWrongTypeReadAsTheirDefaults) {
    PackageEntries const read = from_text(
        R"([{"name":"n","version":1,"arch":[],"install_path":{},"administratively_stopped":1}])");
    EXPECT_EQ(to_text(read), to_text({{"n", entry_named("n")}}));
}

TEST(RegistryFile, LaunchArgumentsThatAreNoArrayLoadAsNone) {
    for (char const* args : {"\"x\"", "{\"0\":\"x\"}", "1", "null"}) {
        PackageEntries const read =
            from_text(std::string(R"([{"name":"n","launch_args":)") + args + "}]");
        EXPECT_THAT(read.at("n").launch_args, IsEmpty()) << args;
    }
}

TEST(RegistryFile, ALaunchArgumentThatIsNoStringReadsAsAnEmptyOne) {
    PackageEntries const read = from_text(R"([{"name":"n","launch_args":["a",1,null,"b"]}])");
    EXPECT_THAT(read.at("n").launch_args, ElementsAre("a", "", "", "b"));
}

TEST(RegistryFile, ALaterElementReplacesAnEarlierOneOfTheSameName) {
    PackageEntries const read =
        from_text(R"([{"name":"n","version":"1","arch":"old"},{"name":"n","version":"2"}])");
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read.at("n").version, "2");
    EXPECT_EQ(read.at("n").arch, "");
}

TEST(RegistryFile, TextThatIsNoArrayOfPackagesIsAnEmptyList) {
    std::string const deep(1 << 20, '[');
    for (std::string const& text : {std::string(), std::string(" "), std::string("{\"name\":1}"),
                                    std::string("[{\"name\":\"n\"},"), std::string("[1e999]"),
                                    std::string("garbage"), deep}) {
        EXPECT_THAT(from_text(text), IsEmpty()) << text.substr(0, 20);
    }
}

TEST(RegistryFile, NestedAHundredThousandDeepItLoadsAndSaves) {
    std::string const manifest = std::string(100'000, '[') + std::string(100'000, ']');
    PackageEntries const read = from_text(R"([{"name":"n","manifest":)" + manifest + "}]");
    EXPECT_EQ(read.size(), 1u);
    EXPECT_NE(to_text(read).find(manifest), std::string::npos);
}

TEST(RegistryFile, AnAbsentFileIsAnEmptyStore) {
    test::TemporaryDirectory const directory;
    EXPECT_THAT(registry_file::load(directory / "none"), IsEmpty());
}

TEST(RegistryFile, AFailedSaveKeepsTheOldFile) {
    test::TemporaryDirectory const directory;
    std::string const path = directory / "registry.json";
    EXPECT_TRUE(registry_file::save(path, {{"n", entry_named("n")}}));
    std::string const before = test::read_text(path);
    std::filesystem::create_directory(path + ".tmp");
    EXPECT_FALSE(registry_file::save(path, {}));
    EXPECT_EQ(test::read_text(path), before);
    EXPECT_TRUE(registry_file::load(path).contains("n"));
}

} // namespace
} // namespace tessaron
