#include "MirelClientApp/web/http_message.hpp"

#include <gtest/gtest.h>
#include <string>

using mirelclient::HttpResponse;

TEST(HttpResponse, HtmlCarriesStatusAndBodyAsGiven) {
    HttpResponse const response = HttpResponse::html("<p>", 404);
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.content_type, "text/html; charset=utf-8");
    EXPECT_EQ(response.body, "<p>");
}

TEST(HttpResponse, JsonCarriesStatusAndBodyAsGiven) {
    HttpResponse const response = HttpResponse::json("[1]", 502);
    EXPECT_EQ(response.status, 502);
    EXPECT_EQ(response.content_type, "application/json");
    EXPECT_EQ(response.body, "[1]");
}

TEST(HttpResponse, ErrorWrapsTheEscapedMessage) {
    HttpResponse const response = HttpResponse::error("no \"x\"", 400);
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.content_type, "application/json");
    EXPECT_EQ(response.body, R"({"error":"no \"x\""})");
}

TEST(HttpResponse, NotFoundIsA404WithAFixedBody) {
    HttpResponse const response = HttpResponse::not_found();
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.content_type, "application/json");
    EXPECT_EQ(response.body, R"({"error":"not found"})");
}

TEST(HttpResponse, JsonEscapeTouchesOnlyQuoteBackslashAndNewline) {
    EXPECT_EQ(HttpResponse::json_escape("a\"b\\c\nd"), R"(a\"b\\c\nd)");
}

TEST(HttpResponse, JsonEscapePassesOtherControlCharactersUnchanged) {
    std::string const bytes("\0\x01\t\r\x1f\x7f\xff", 7);
    EXPECT_EQ(HttpResponse::json_escape(bytes), bytes);
}
