#include "package/package_envelopes.hpp"

#include "package/package_records.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

namespace tessaron {
namespace {

using bus::Envelope;
using proto::bus::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;

Bytes payload_of(std::map<std::string, std::string> fields, std::string const& data = "") {
    return bus::encode_envelope({std::move(fields), {data.begin(), data.end()}});
}

std::string data_of(Envelope const& envelope) {
    return {envelope.data.begin(), envelope.data.end()};
}

Bytes const K_NOTHING = payload_of({});

TEST(PackageNameRequest, IsANameThatIsEmptyWhenItIsMissing) {
    EXPECT_EQ(PackageNameRequest::parse(payload_of({{"name", "it's"}, {"else", "1"}})).name,
              "it's");
    EXPECT_EQ(PackageNameRequest::parse(K_NOTHING).name, "");
    EXPECT_EQ(PackageNameRequest{"a"}.build(), payload_of({{"name", "a"}}));
}

TEST(PackageArgsRequest, HasItsArgumentsAsAnArrayInTheData) {
    auto const request = PackageArgsRequest::parse(payload_of({{"name", "a"}}, R"(["-x", "b c"])"));
    EXPECT_EQ(request.name, "a");
    EXPECT_THAT(request.args, ElementsAre("-x", "b c"));
    PackageArgsRequest const written{"a", {"-x", "\"q\"", ""}};
    EXPECT_EQ(written.build(), payload_of({{"name", "a"}}, R"(["-x","\"q\"",""])"));
}

TEST(PackageArgsRequest, WithoutDataThereAreNoArguments) {
    EXPECT_THAT(PackageArgsRequest::parse(payload_of({{"name", "a"}})).args, IsEmpty());
    PackageArgsRequest const none{"a", {}};
    EXPECT_THAT(PackageArgsRequest::parse(none.build()).args, IsEmpty());
}

TEST(PackageArgsRequest, AnElementThatIsNoStringIsAnEmptyOne) {
    auto const request =
        PackageArgsRequest::parse(payload_of({}, R"([1, "two", null, ["three"], {}, true])"));
    EXPECT_EQ(request.name, "");
    EXPECT_THAT(request.args, ElementsAre("", "two", "", "", "", ""));
}

TEST(PackageArgsRequest, DataThatAreNoArrayHaveNoArguments) {
    for (char const* const data : {"{}", "null", "\"-x\"", "1"}) {
        EXPECT_THAT(PackageArgsRequest::parse(payload_of({}, data)).args, IsEmpty()) << data;
    }
}

TEST(PackageArgsRequest, DataThatAreNoJsonAreRefused) {
    for (char const* const data : {"[", "[\"a\"", "-x", " ", "[\"a\"]]"}) {
        EXPECT_THROW(PackageArgsRequest::parse(payload_of({{"name", "a"}}, data)),
                     std::invalid_argument)
            << data;
    }
}

TEST(PackageInstallRequest, HasAFieldForEachMember) {
    Bytes const payload = payload_of({{"name", "a"},
                                      {"version", "1"},
                                      {"arch", "any"},
                                      {"artifact_path", "/tmp/a b"},
                                      {"start_after_install", "0"}});
    auto const request = PackageInstallRequest::parse(payload);
    EXPECT_EQ(request.name, "a");
    EXPECT_EQ(request.version, "1");
    EXPECT_EQ(request.arch, "any");
    EXPECT_EQ(request.artifact_path, "/tmp/a b");
    EXPECT_FALSE(request.start_after_install);
    EXPECT_EQ(request.build(), payload);
}

TEST(PackageInstallRequest, WhatIsMissingIsEmpty) {
    auto const request = PackageInstallRequest::parse(K_NOTHING);
    EXPECT_EQ(request.name + request.version + request.arch + request.artifact_path, "");
}

TEST(PackageInstallRequest, StartsThePackageUnlessTheFieldIsExactlyZero) {
    EXPECT_TRUE(PackageInstallRequest::parse(K_NOTHING).start_after_install);
    for (char const* const value : {"", "1", "00", "0 ", "false", "no"}) {
        EXPECT_TRUE(PackageInstallRequest::parse(payload_of({{"start_after_install", value}}))
                        .start_after_install)
            << value;
    }
    EXPECT_FALSE(PackageInstallRequest::parse(payload_of({{"start_after_install", "0"}}))
                     .start_after_install);
    PackageInstallRequest const starting{"a", "1", "", "", true};
    EXPECT_TRUE(PackageInstallRequest::parse(starting.build()).start_after_install);
}

TEST(PackageManagerReply, OnSuccessHasNoErrorAndNoDataUnlessThereAreAny) {
    EXPECT_EQ(PackageManagerReply::success().build(), payload_of({{"status", "ok"}}));
    EXPECT_EQ(PackageManagerReply::success(json::Value::Array{1}).build(),
              payload_of({{"status", "ok"}}, "[1]"));
}

TEST(PackageManagerReply, AFailureSaysWhy) {
    EXPECT_EQ(PackageManagerReply::failure("start: no").build(),
              payload_of({{"status", "error"}, {"error", "start: no"}}));
    EXPECT_EQ(PackageManagerReply::failure("").build(), payload_of({{"status", "error"}}));
}

TEST(PackageManagerReply, EmptyTextAndEmptyContainersAreDataAllTheSame) {
    auto const data = [](json::Value value) {
        return data_of(
            bus::decode_envelope(PackageManagerReply::success(std::move(value)).build()));
    };
    EXPECT_EQ(data(""), "\"\"");
    EXPECT_EQ(data(json::Value::Array{}), "[]");
    EXPECT_EQ(data(json::Value::Object{}), "{}");
    EXPECT_EQ(data(false), "false");
    EXPECT_EQ(data({}), "");
}

TEST(PackageManagerReply, WhatDoesNotFitIntoAMessageIsAnError) {
    std::string const largest(bus::K_MAX_RECORD_DATA - 2, 'x');
    auto const fits = PackageManagerReply::success(largest).build();
    EXPECT_EQ(fits, payload_of({{"status", "ok"}}, "\"" + largest + "\""));
    EXPECT_EQ(PackageManagerReply::success(largest + "x").build(),
              payload_of(
                  {{"status", "error"}, {"error", "reply too large for a message: 983041 bytes"}}));
}

TEST(PackageManagerReply, ReadsWhatItWrote) {
    auto const failed =
        PackageManagerReply::parse(PackageManagerReply::failure("stop: \"a\" is not").build());
    EXPECT_FALSE(failed.ok);
    EXPECT_EQ(failed.error, "stop: \"a\" is not");
    EXPECT_TRUE(failed.data.is_null());
    auto const listed = PackageManagerReply::parse(
        PackageManagerReply::success(json::Value::Object{{"a", "b"}}).build());
    EXPECT_TRUE(listed.ok);
    EXPECT_EQ(listed.error, "");
    EXPECT_EQ(listed.data.dump(), R"({"a":"b"})");
    EXPECT_FALSE(PackageManagerReply::parse(K_NOTHING).ok);
}

TEST(PackageRecords, APayloadThatIsNoEnvelopeIsRefused) {
    for (Bytes const& payload : {Bytes{}, Bytes{1, 0, 0, 0}, Bytes(3, 0)}) {
        EXPECT_THROW(PackageNameRequest::parse(payload), std::invalid_argument);
        EXPECT_THROW(PackageArgsRequest::parse(payload), std::invalid_argument);
        EXPECT_THROW(PackageInstallRequest::parse(payload), std::invalid_argument);
        EXPECT_THROW(PackageManagerReply::parse(payload), std::invalid_argument);
    }
}

} // namespace
} // namespace tessaron
