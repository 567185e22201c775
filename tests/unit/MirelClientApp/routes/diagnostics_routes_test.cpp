#include "MirelClientApp/routes/diagnostics_routes.hpp"

#include "tests/unit/MirelClientApp/diagnostics/DiagnosticsTest.hpp"
#include "tests/unit/MirelClientApp/web/LoopbackClient.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <initializer_list>
#include <tuple>
#include <utility>

namespace mirelclient::test {
namespace {

using tessaron::test::answer;

std::string no_reply() {
    return json_answer("404 Not Found",
                       R"({"error":"package not discovered on the bus, or it didn't reply"})");
}

/// A package "weather", and the routes in front of it.
class DiagnosticsRoutes : public DiagnosticsTest {
protected:
    DiagnosticsRoutes() {
        start_and_find({"weather"});
        for (std::uint32_t const address : {311U, 1300U, 2300U}) {
            wait_until([&] { return diagnostics->hub_owns_address("weather", address); },
                       "the module is known");
        }
        register_diagnostics_routes(server, *diagnostics);
        EXPECT_EQ(server.start(), "");
    }

    std::string fetch(std::string const& target) { return answer_to(server.port(), get(target)); }
    std::string set(std::string const& package, std::string const& body) {
        return answer_to(server.port(), "POST /api/packages/" + package +
                                            "/config HTTP/1.1\r\nContent-Length: " +
                                            std::to_string(body.size()) + "\r\n\r\n" + body);
    }

    Application weather{bus, 300, "weather"};
    WebServer server{"127.0.0.1", 0};
};

TEST_F(DiagnosticsRoutes, SessionsAndCrashesAreAskedForWithoutALimit) {
    Collected<proto::bus::Bytes> asked;
    tessaron::SessionHistoryReply sessions;
    sessions.records.emplace_back().pid = 7;
    answer(*weather.control, "session_history", sessions, asked);
    answer(*weather.control, "crash_history", tessaron::CrashHistoryReply(), asked);
    EXPECT_EQ(
        fetch("/api/packages/weather/sessions"),
        json_answer("200 OK",
                    R"({"discovered":true,"sessions":[{"args":"","duration_seconds":0,)"
                    R"("executable_path":"","is_start":false,"log_line":0,"pid":7,"reason":"",)"
                    R"("runtime_snapshot":"","timestamp":0,"user":"","working_dir":""}]})"));
    EXPECT_EQ(fetch("/api/packages/weather/crashes"),
              json_answer("200 OK", R"({"crashes":[],"discovered":true})"));
    auto const requests = asked.all();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(tessaron::SessionHistoryRequest::parse(requests[0]).max_records, 0U);
    EXPECT_EQ(tessaron::CrashHistoryRequest::parse(requests[1]).max_records, 0U);
    EXPECT_EQ(tessaron::CrashHistoryRequest::parse(requests[1]).skip_from_end, 0U);
}

TEST_F(DiagnosticsRoutes, HistoriesNeverFail) {
    // Nobody serves them here, and nobody is there in the other case.
    EXPECT_EQ(fetch("/api/packages/weather/sessions"),
              json_answer("200 OK", R"({"discovered":true,"sessions":[]})"));
    EXPECT_EQ(fetch("/api/packages/nobody/sessions"),
              json_answer("200 OK", R"({"discovered":false,"sessions":[]})"));
    EXPECT_EQ(fetch("/api/packages/nobody/crashes"),
              json_answer("200 OK", R"({"crashes":[],"discovered":false})"));
}

TEST_F(DiagnosticsRoutes, AnIncidentIsFoundByTheNumbersOfItsPath) {
    Collected<proto::bus::Bytes> asked;
    answer(*weather.control, "crash_incident", tessaron::CrashIncidentReply{true, "", {"a", "b"}},
           asked);
    for (auto const& [path, pid, ts] : std::initializer_list<std::tuple<char const*, long, long>>{
             {"42/1700000000", 42, 1700000000}, {"-1/x", -1, 0}, {"12ab/0x10", 12, 0}}) {
        EXPECT_EQ(fetch(std::string("/api/packages/weather/crashes/") + path),
                  json_answer("200 OK", R"({"lines":["a","b"]})"));
        auto const request = tessaron::CrashIncidentRequest::parse(asked.all().back());
        EXPECT_EQ(request.pid, pid);
        EXPECT_EQ(request.ts, ts);
    }
}

TEST_F(DiagnosticsRoutes, TheLogIsReadInThePartAndOfTheFileThatTheQueryNames) {
    Collected<proto::bus::Bytes> asked;
    answer(*weather.logger, "read", tessaron::LogReadReply{false, "no", 9, 4, 2, true, {"x"}},
           asked);
    std::string const shown = json_answer(
        "200 OK",
        R"({"error":"no","from_line":4,"generation":2,"lines":["x"],"ok":false,"total_lines":9})");
    struct Case {
        std::string query;
        std::uint64_t from;
        std::uint64_t to;
        std::optional<std::uint64_t> generation;
    };
    for (Case const& wanted : std::initializer_list<Case>{{"", 1, 1, std::nullopt},
                                                          {"?from=5", 5, 5, std::nullopt},
                                                          {"?from=5&to=9", 5, 9, std::nullopt},
                                                          {"?to=9", 1, 9, std::nullopt},
                                                          {"?from=x&to=0", 0, 0, std::nullopt},
                                                          {"?generation=3", 1, 1, 3},
                                                          {"?generation=", 1, 1, 0}}) {
        EXPECT_EQ(fetch("/api/packages/weather/log" + wanted.query), shown);
        auto const request = tessaron::LogReadRequest::parse(asked.all().back());
        EXPECT_EQ(request.from_line, wanted.from) << wanted.query;
        EXPECT_EQ(request.to_line, wanted.to) << wanted.query;
        EXPECT_EQ(request.generation, wanted.generation) << wanted.query;
    }
}

TEST_F(DiagnosticsRoutes, ASettingIsSentAsItIs) {
    Collected<proto::bus::Bytes> asked;
    answer(*weather.config, "set", tessaron::config::ConfigSetReply(), asked);
    for (auto const& [body, value] : std::initializer_list<std::pair<std::string, std::string>>{
             {R"({"name":"f","value":"1"})", "1"}, {R"({"name":"f"})", ""}}) {
        EXPECT_EQ(set("weather", body), json_answer("200 OK", R"({"ok":true})"));
        auto const request = tessaron::config::ConfigSetRequest::parse(asked.all().back());
        EXPECT_EQ(request.name, "f");
        EXPECT_EQ(request.value, value);
    }
}

TEST_F(DiagnosticsRoutes, ASettingThatIsRefusedOrHasNoNameIsABadRequest) {
    answer(*weather.config, "set", tessaron::config::ConfigSetReply{false, "why"});
    EXPECT_EQ(set("weather", R"({"name":"f","value":"1"})"),
              json_answer("400 Bad Request",
                          R"({"error":"config_set failed - check the field name/value"})"));
    for (std::string const body : {"", "no json", "{}", R"({"name":5})", R"({"value":"1"})"}) {
        EXPECT_EQ(set("nobody", body),
                  json_answer("400 Bad Request", R"({"error":"\"name\" is required"})"))
            << body;
    }
    EXPECT_EQ(set("nobody", R"({"name":"f"})"), no_reply());
}

TEST_F(DiagnosticsRoutes, ForAPackageThatIsNotOnTheBusNobodyIsAsked) {
    RawNode raw(bus, 9);
    raw.join();
    for (char const* const path : {"crashes/1/2", "log/info", "log?from=1&to=5", "config"}) {
        EXPECT_EQ(fetch(std::string("/api/packages/nobody/") + path), no_reply()) << path;
    }
    tessaron::test::settle(raw, own.hub);
    for (auto const& frame : raw.heard(MessageType::REQUEST)) {
        EXPECT_EQ(frame.topic_id, tessaron::test::topic_hash(K_MAP_TOPIC));
    }
}

} // namespace
} // namespace mirelclient::test
