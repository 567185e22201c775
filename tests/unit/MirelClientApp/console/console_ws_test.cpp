#include "MirelClientApp/console/console_ws.hpp"

#include "MirelClientApp/console/Console.hpp"
#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/WsPeer.hpp"
#include "tests/unit/MirelClientApp/console/ProcessFacts.hpp"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace mirelclient {
namespace {

using test::WsFrame;

/// A browser with a terminal of the console.
class Browser {
public:
    explicit Browser(Console& console, HttpRequest const& request = test::sample_handshake()) {
        test::SocketPair const pair;
        peer = std::make_unique<test::WsPeer>(pair.ends[1]);
        server_ = std::thread(
            [&console, request, fd = pair.ends[0]] { console.serve_terminal(fd, request); });
    }
    ~Browser() {
        peer->close();
        server_.join();
    }
    Browser(Browser const&) = delete;
    Browser& operator=(Browser const&) = delete;

    bool is_open() { return peer->read(test::K_SAMPLE_ANSWER.size()) == test::K_SAMPLE_ANSWER; }

    /// As a person does who waits for the prompt.
    Browser& open() {
        EXPECT_TRUE(is_open());
        peer->type("PS1=\nstty -echo\necho rea''dy\n");
        EXPECT_NE(peer->read_output_until("ready\r\n"), "");
        return *this;
    }
    std::string answer_to(std::string const& command) {
        peer->type(command + "; echo en''d\n");
        std::string const output = peer->read_output_until("end\r\n");
        EXPECT_TRUE(output.ends_with("end\r\n")) << output;
        return output.substr(0, output.size() - 5);
    }
    void exit_shell() {
        // Its pid is gone once it is a zombie: the output has ended then.
        std::string const pid = answer_to("echo $$");
        peer->type("exit\n");
        test::expect_ends(std::atoi(pid.c_str()));
    }

    std::unique_ptr<test::WsPeer> peer;

private:
    std::thread server_;
};

class ConsoleWs : public testing::Test {
protected:
    Console console_;
};

TEST_F(ConsoleWs, KeysGoInAndOutputComesAsBinaryFrames) {
    Browser browser(console_);
    browser.open();
    EXPECT_EQ(browser.answer_to("echo gr\xc3\xbc\xc3\x9f dich"), "gr\xc3\xbc\xc3\x9f dich\r\n");
}

TEST_F(ConsoleWs, AWrongHandshakeClosesTheSocketSilently) {
    HttpRequest request = test::sample_handshake();
    request.headers["connection"] = "keep-alive";
    Browser browser(console_, request);
    EXPECT_EQ(browser.peer->read(1), "");
    EXPECT_TRUE(test::children().empty());
}

TEST_F(ConsoleWs, WithoutATerminalTheConnectionEndsRightAfterTheHandshake) {
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    test::SocketPair const pair;
    test::WsPeer peer(pair.ends[1]);
    rlimit const none{0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    handle_console_ws(pair.ends[0], test::sample_handshake());
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(peer.read(1000), test::K_SAMPLE_ANSWER);
}

TEST_F(ConsoleWs, ATextMessageSetsTheSizeOfTheWindow) {
    Browser browser(console_);
    browser.open();
    EXPECT_EQ(browser.answer_to("stty size"), "24 80\r\n");
    std::vector<std::pair<std::string, std::string>> const sizes{
        {R"({"cols":132,"rows":43})", "43 132"},
        {R"({"cols":120})", "0 120"},
        {R"({"rows":7,"cols":"wide"})", "7 0"},
        {R"({"cols":65536,"rows":65537.9})", "1 0"},
        {R"({"cols":-1,"rows":70000})", "4464 65535"},
        {R"({"cols":1e300,"rows":inf})", "0 0"},
        {R"({"cols":nan,"rows":5})", "5 0"},
        {R"({"cols":9e18,"rows":-9.3e18})", "0 0"},
        {"[]", "0 0"},
    };
    for (auto const& [control, size] : sizes) {
        browser.peer->send(WsFrame{1, control});
        EXPECT_EQ(browser.answer_to("stty size"), size + "\r\n") << control;
    }
}

TEST_F(ConsoleWs, ABrokenTextMessageIsIgnored) {
    Browser browser(console_);
    browser.open();
    for (char const* control : {"", "{", "cols=5", R"({"cols":5,"rows":6)", R"({"cols":1e999})"}) {
        browser.peer->send(WsFrame{1, control});
    }
    EXPECT_EQ(browser.answer_to("stty size"), "24 80\r\n");
}

TEST_F(ConsoleWs, OtherMessagesAreIgnored) {
    Browser browser(console_);
    browser.open();
    browser.peer->send(WsFrame{0, "echo zero\n"});
    browser.peer->send(WsFrame{5, "echo five\n"});
    EXPECT_EQ(browser.answer_to("echo two"), "two\r\n");
}

TEST_F(ConsoleWs, KeystrokesAreAcceptedInFragmentsWithAPingAmongThem) {
    Browser browser(console_);
    browser.open();
    browser.peer->send(WsFrame{2, "echo fra", false});
    browser.peer->send(WsFrame{9, "x"});
    EXPECT_EQ(browser.peer->read_frame(), (WsFrame{10, "x", true, false}));
    browser.peer->send(WsFrame{0, "gments\n"});
    EXPECT_EQ(browser.peer->read_output_until("fragments\r\n"), "fragments\r\n");
}

TEST_F(ConsoleWs, ALongPasteArrivesWhole) {
    Browser browser(console_);
    browser.open();
    std::string paste;
    for (int line = 0; line < 2000; ++line) {
        paste += std::string(49, static_cast<char>('a' + line % 26)) + "\n";
    }
    tessaron::test::TemporaryDirectory const directory;
    std::string const file = directory / "pasted";
    browser.peer->type("cat >" + file + "\n");
    browser.peer->type(paste + "\x04");
    EXPECT_EQ(browser.answer_to("true"), "");
    EXPECT_EQ(tessaron::read_file(file), paste);
}

TEST_F(ConsoleWs, AFrameThatIsTooLargeEndsTheSessionWithoutACloseFrame) {
    Browser browser(console_);
    browser.open();
    browser.peer->send(WsFrame{2, std::string(2 * 1024 * 1024, 'x')}.head());
    EXPECT_EQ(browser.peer->read_frame(), std::nullopt);
}

TEST_F(ConsoleWs, ACloseFrameIsAnsweredAndHangsTheShellUp) {
    Browser browser(console_);
    browser.open();
    pid_t const shell = std::atoi(browser.answer_to("echo $$").c_str());
    browser.peer->send(WsFrame{8, "\x03\xe8"});
    EXPECT_EQ(browser.peer->read_frame(), (WsFrame{8, "", true, false}));
    EXPECT_EQ(browser.peer->read_frame(), std::nullopt);
    test::expect_ends(shell);
}

TEST_F(ConsoleWs, ATabThatIsClosedHangsTheShellUp) {
    pid_t shell = 0;
    {
        Browser browser(console_);
        shell = std::atoi(browser.open().answer_to("echo $$").c_str());
    }
    EXPECT_FALSE(test::is_alive(shell));
    EXPECT_TRUE(test::children().empty());
}

TEST_F(ConsoleWs, AfterTheShellsEndPingsAreAnsweredUntilTheNextMessageEndsIt) {
    Browser browser(console_);
    browser.open().exit_shell();
    for (char const* payload : {"a", "b"}) {
        browser.peer->send(WsFrame{9, payload});
        EXPECT_EQ(browser.peer->read_frame(), (WsFrame{10, payload, true, false}));
    }
    browser.peer->type("anything");
    EXPECT_EQ(browser.peer->read_frame(), std::nullopt);
}

TEST_F(ConsoleWs, AfterTheShellsEndATextMessageEndsItToo) {
    Browser browser(console_);
    browser.open().exit_shell();
    browser.peer->send(WsFrame{1, R"({"cols":80,"rows":24})"});
    EXPECT_EQ(browser.peer->read_frame(), std::nullopt);
}

TEST_F(ConsoleWs, ABrowserThatNeverReadsDoesNotHoldItsSession) {
    Browser browser(console_);
    browser.open();
    tessaron::test::TemporaryDirectory const directory;
    std::string const pid_file = directory / "pid";
    browser.peer->type("echo $$ >" + pid_file + "; exec yes\n");
    pid_t const shell = test::pid_in(pid_file);
    browser.peer->read_output_until("y\r\ny\r\n");
    browser.peer->end_of_input();
    test::expect_ends(shell);
}

TEST_F(ConsoleWs, KeysThatNobodyReadsDoNotHoldASessionThatWasClosed) {
    Browser browser(console_);
    browser.open();
    browser.peer->type("stty raw; echo rea''dy; exec sleep 1000\n");
    browser.peer->read_output_until("ready\n");
    browser.peer->type(std::string(500'000, 'x'));
} // where the browser closes, and the session must end

TEST_F(ConsoleWs, AStopEndsEveryTerminal) {
    tessaron::test::TemporaryDirectory const directory;
    std::vector<std::unique_ptr<Browser>> browsers;
    std::vector<std::string> const commands{
        "true",
        "exec yes",
        "sleep 1000",
        "trap '' HUP; while :; do sleep 1000; done",
        "stty raw; exec sleep 1000",
        "exit",
    };
    std::vector<pid_t> shells;
    for (std::string const& command : commands) {
        browsers.push_back(std::make_unique<Browser>(console_));
        browsers.back()->open();
        std::string const pid_file = directory / std::to_string(browsers.size());
        browsers.back()->peer->type("echo $$ >" + pid_file + "; " + command + "\n");
        shells.push_back(test::pid_in(pid_file));
    }
    browsers[4]->peer->type(std::string(500'000, 'x')); // to a program that does not read
    console_.request_stop();
    EXPECT_TRUE(console_.wait_until_ended(std::chrono::seconds(20)));
    for (pid_t const shell : shells) {
        EXPECT_FALSE(test::is_alive(shell));
    }
    EXPECT_TRUE(test::children().empty());
}

TEST_F(ConsoleWs, AfterAStopThereIsNoTerminalAndNoCommand) {
    console_.request_stop();
    Browser browser(console_);
    EXPECT_EQ(browser.peer->read(1), "");
    EXPECT_EQ(console_.exec("echo late", 60).output, "");
}

TEST_F(ConsoleWs, ALiveTerminalIsWaitedForUntilTheTimeIsUp) {
    Browser browser(console_);
    browser.open();
    EXPECT_FALSE(console_.wait_until_ended(std::chrono::milliseconds(1)));
}

TEST_F(ConsoleWs, ManyTerminalsLeaveNothingBehind) {
    std::size_t const descriptors = test::descriptor_count();
    for (int i = 0; i < 30; ++i) {
        Browser browser(console_);
        EXPECT_TRUE(browser.is_open());
    }
    EXPECT_EQ(test::descriptor_count(), descriptors);
    EXPECT_TRUE(test::children().empty());
}

} // namespace
} // namespace mirelclient
