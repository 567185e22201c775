#include "app/CommandLine.hpp"

#include "app/build_info.hpp"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tessaron {
namespace {

struct Outcome {
    std::optional<int> code;
    ShellOptions options;
    std::string out;
    std::string err;
};

Outcome parse(std::vector<char const*> arguments) {
    Outcome outcome;
    CommandLine command_line("myapp", "Does things", "1.2.3-x", outcome.options);
    arguments.insert(arguments.begin(), "./prog");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    outcome.code = command_line.parse(static_cast<int>(arguments.size()), arguments.data());
    outcome.out = testing::internal::GetCapturedStdout();
    outcome.err = testing::internal::GetCapturedStderr();
    return outcome;
}

TEST(CommandLine, WithoutArgumentsTheProgramGoesOn) {
    Outcome const outcome = parse({});
    EXPECT_EQ(outcome.code, std::nullopt);
    EXPECT_FALSE(outcome.options.list_config);
    EXPECT_FALSE(outcome.options.bus_report);
    EXPECT_FALSE(outcome.options.verbose);
    EXPECT_EQ(outcome.options.instance_policy, InstancePolicy::warn);
}

TEST(CommandLine, WithNothingToParseTheProgramGoesOn) {
    ShellOptions options;
    CommandLine command_line("myapp", "Does things", "1.2.3-x", options);
    EXPECT_EQ(command_line.parse(0, nullptr), std::nullopt);
}

TEST(CommandLine, FlagsAreStored) {
    Outcome const outcome = parse({"--list-config", "--bus-report", "--verbose"});
    EXPECT_EQ(outcome.code, std::nullopt);
    EXPECT_TRUE(outcome.options.list_config);
    EXPECT_TRUE(outcome.options.bus_report);
    EXPECT_TRUE(outcome.options.verbose);
}

TEST(CommandLine, ThePolicyIsTakenInEverySpelling) {
    EXPECT_EQ(parse({"--instance-policy", "kill"}).options.instance_policy, InstancePolicy::kill);
    EXPECT_EQ(parse({"--instance-policy=kill"}).options.instance_policy, InstancePolicy::kill);
    EXPECT_EQ(parse({"--instance-policy=KILL"}).options.instance_policy, InstancePolicy::kill);
    EXPECT_EQ(parse({"--instance-policy=2"}).options.instance_policy, InstancePolicy::kill);
    EXPECT_EQ(parse({"--instance-policy", "Wait"}).options.instance_policy, InstancePolicy::wait);
    EXPECT_EQ(parse({"--instance-policy", "1"}).options.instance_policy, InstancePolicy::wait);
    EXPECT_EQ(parse({"--instance-policy", "warn"}).options.instance_policy, InstancePolicy::warn);
}

TEST(CommandLine, AnUnknownPolicyOrOptionIsRefusedOnTheErrorStream) {
    for (char const* argument :
         {"--instance-policy=perhaps", "--instance-policy=3", "--nonsense", "stray"}) {
        Outcome const outcome = parse({argument});
        ASSERT_TRUE(outcome.code) << argument;
        EXPECT_NE(*outcome.code, 0) << argument;
        EXPECT_EQ(outcome.out, "") << argument;
        EXPECT_NE(outcome.err, "") << argument;
    }
}

TEST(CommandLine, TheVersionIsTheFullTextAlone) {
    for (char const* argument : {"--version", "-v"}) {
        Outcome const outcome = parse({argument});
        EXPECT_EQ(outcome.code, 0);
        EXPECT_EQ(outcome.out, "1.2.3-x\n");
        EXPECT_EQ(outcome.err, "");
    }
}

TEST(CommandLine, TheHelpIsExact) {
    BuildStamp const& stamp = build_stamp();
    Outcome const outcome = parse({"--help"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, parse({"-h"}).out);
    EXPECT_EQ(
        outcome.out,
        std::string("Description:\n"
                    "    Does things\n"
                    "Usage: myapp [OPTIONS]\n"
                    "\n"
                    "General:\n"
                    "  -h,--help                   Print this help message and exit\n"
                    "  -v,--version                Show version\n"
                    "  --instance-policy ENUM:value in {kill->2,wait->1,warn->0} OR {2,1,0}\n"
                    "                              What to do if another instance of this "
                    "app is already running: 'warn' (default - report who's running and refuse "
                    "to start), 'wait' (block until it exits, then start), 'kill' (terminate "
                    "it, then start)\n"
                    "\n"
                    "\n"
                    "Diagnostics:\n"
                    "  --list-config               Print every config field "
                    "(name/type/description/default) and exit\n"
                    "  --bus-report                Print a table of everything declared on the "
                    "shared bus (devices/publications/subscriptions) once startup is complete, "
                    "then exit\n"
                    "  --verbose                   Enable verbose output - mirrors the "
                    "diagnostic log to the console in addition to its file, and may also "
                    "enable Derived's own protocol-level tracing (see IsVerbose())\n"
                    "\n"
                    "Built: \n"
                    "    Date: ") +
            stamp.build_ts + "\n    Machine: " + stamp.build_machine +
            "\n    User: " + stamp.build_user + "\n    Commit: " + stamp.commit +
            "\n    Type: " + stamp.build_type + "\n    Compiler: " + stamp.compiler + "\n");
}

} // namespace
} // namespace tessaron
