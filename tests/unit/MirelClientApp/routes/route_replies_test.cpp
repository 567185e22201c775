#include "MirelClientApp/routes/route_replies.hpp"

#include "MirelClientApp/routes/json_helpers.hpp"

#include <gtest/gtest.h>

namespace mirelclient {
namespace {

using tessaron::PackageManagerReply;
using tessaron::json::Value;

TEST(RouteReplies, APackageReplyWrapsItsData) {
    HttpResponse const answer = pkgmgr_response(PackageManagerReply::success(Value::Array{1, "b"}));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.content_type, "application/json");
    EXPECT_EQ(answer.body, R"({"body":[1,"b"],"ok":true})");
}

TEST(RouteReplies, APackageReplyWithoutDataHasANullBody) {
    EXPECT_EQ(pkgmgr_response(PackageManagerReply::success()).body, R"({"body":null,"ok":true})");
}

TEST(RouteReplies, AFailedPackageReplyIsABadRequestWithItsText) {
    HttpResponse const answer =
        pkgmgr_response(PackageManagerReply::failure("stop: \"x\" is not installed"));
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, R"({"error":"stop: \"x\" is not installed"})");
}

TEST(RouteReplies, AManifestComesWithoutAWrapper) {
    EXPECT_EQ(
        manifest_response(PackageManagerReply::success(Value::Object{{"executable", "run"}})).body,
        R"({"executable":"run"})");
}

TEST(RouteReplies, AMissingManifestIsNotFound) {
    HttpResponse const answer = manifest_response(PackageManagerReply::failure("manifest: gone"));
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.body, R"({"error":"manifest: gone"})");
}

TEST(RouteReplies, ABodyFieldIsTheStringAtItsKey) {
    EXPECT_EQ(parse_body_field(R"({"name":"web_port","value":"80"})", "value"), "80");
}

TEST(RouteReplies, WhateverElseABodyMayBeHasNoField) {
    for (std::string const body :
         {"", "no json", "[]", "5", "{}", R"({"version":1})", R"({"version":null})",
          R"({"version":1e999})", R"({"version":"1")"}) {
        EXPECT_EQ(parse_body_field(body, "version"), "") << body;
    }
    EXPECT_EQ(parse_body_field(std::string(1 << 20, '['), "version"), "");
}

TEST(RouteReplies, ANumberOfTheQueryIsWhatItBeginsWith) {
    HttpRequest request;
    request.query = {{"plain", "5"},
                     {"blank", ""},
                     {"text", "x1"},
                     {"begin", "12ab"},
                     {"hex", "0x10"},
                     {"spaced", " 7"},
                     {"large", "18446744073709551615"},
                     {"larger", "18446744073709551616"}};
    EXPECT_EQ(query_number(request, "plain", 1), 5U);
    EXPECT_EQ(query_number(request, "missing", 1), 1U);
    EXPECT_EQ(query_number(request, "blank", 1), 0U);
    EXPECT_EQ(query_number(request, "text", 1), 0U);
    EXPECT_EQ(query_number(request, "begin", 1), 12U);
    EXPECT_EQ(query_number(request, "hex", 1), 0U);
    EXPECT_EQ(query_number(request, "spaced", 1), 7U);
    EXPECT_EQ(query_number(request, "large", 1), 18446744073709551615U);
    EXPECT_EQ(query_number(request, "larger", 1), 18446744073709551615U);
}

TEST(RouteReplies, AConfigurationFieldHasItsKeysInOrder) {
    EXPECT_EQ(json_helpers::config_field({"n", "int", "d", "1", "2", false}).dump(),
              R"({"current_value":"1","default_value":"2","description":"d","is_default":false,)"
              R"("name":"n","type_name":"int"})");
}

TEST(RouteReplies, AnUpdateStatusHasItsKeysInOrder) {
    EXPECT_EQ(json_helpers::update_status({"error", "it failed", "1.0.0"}).dump(),
              R"({"error":"it failed","phase":"error","target_version":"1.0.0"})");
    EXPECT_EQ(json_helpers::update_status({"done", "", "1.0.0"}).dump(),
              R"({"error":"","phase":"done","target_version":"1.0.0"})");
}

TEST(RouteReplies, APackageThatWasNeverUpdatedHasAnEmptyPhaseAlone) {
    EXPECT_EQ(json_helpers::update_status({}).dump(), R"({"phase":""})");
}

TEST(RouteReplies, ACheckHasAnErrorOnlyIfThereIsOne) {
    SelfUpdater::CheckResult result{true, "0.0.0", "1.0.0", "cpu-os", ""};
    EXPECT_EQ(
        json_helpers::check_result(result).dump(),
        R"({"arch":"cpu-os","available":true,"current_version":"0.0.0","latest_version":"1.0.0"})");
    result = {false, "0.0.0", "", "cpu-os", "down"};
    EXPECT_EQ(json_helpers::check_result(result).dump(),
              R"({"arch":"cpu-os","available":false,"current_version":"0.0.0","error":"down",)"
              R"("latest_version":""})");
}

} // namespace
} // namespace mirelclient
