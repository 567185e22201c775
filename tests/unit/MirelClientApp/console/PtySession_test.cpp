#include "MirelClientApp/console/PtySession.hpp"

#include "tests/support/TemporaryDirectory.hpp"
#include "tests/support/WsPeer.hpp"
#include "tests/unit/MirelClientApp/console/ProcessFacts.hpp"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace mirelclient {
namespace {

/// Everything up to this text, or up to the end of the output.
std::string read_until(PtySession& session, std::string const& text) {
    std::string output;
    std::array<char, 4096> piece;
    while (output.find(text) == std::string::npos) {
        std::size_t const size = session.read_output(piece.data(), piece.size());
        if (size == 0) {
            break;
        }
        output.append(piece.data(), size);
    }
    return output;
}

/// What a command prints in a fresh terminal, up to the marker that it must print at its end. A
/// marker is written as "en''d", so that the echo of what was typed is not taken for it.
std::string answer_to(PtySession& session, std::string const& command) {
    EXPECT_TRUE(session.write_input("PS1=\nstty -echo\necho rea''dy\n"));
    read_until(session, "ready\r\n");
    EXPECT_TRUE(session.write_input(command + "; echo en''d\n"));
    std::string const output = read_until(session, "end\r\n");
    EXPECT_TRUE(output.ends_with("end\r\n")) << output;
    return output.substr(0, output.size() - 5);
}

std::string answer_to(std::string const& command) {
    auto const session = PtySession::spawn();
    return session == nullptr ? "no terminal" : answer_to(*session, command);
}

TEST(PtySession, IsAShellOnATerminalOf24By80) {
    EXPECT_EQ(answer_to("stty size"), "24 80\r\n");
    EXPECT_EQ(answer_to("echo $0 $#"), "sh 0\r\n");
}

TEST(PtySession, SetsTheKindOfTerminalWhateverItWas) {
    EXPECT_EQ(answer_to("echo $TERM"), "xterm-256color\r\n");
    ::setenv("TERM", "dumb", 1);
    EXPECT_EQ(answer_to("env | grep ^TERM="), "TERM=xterm-256color\r\n");
    ::unsetenv("TERM");
    EXPECT_EQ(answer_to("echo $TERM"), "xterm-256color\r\n");
}

TEST(PtySession, TheTerminalControlsTheShellsSession) {
    EXPECT_EQ(answer_to("ps -o sid= -p $$ | grep -qx \" *$$\" && [ -t 0 ] && [ -t 1 ] && [ -t 2 ]"
                        " && : >/dev/tty && echo yes"),
              "yes\r\n");
}

TEST(PtySession, TheShellGetsItsStandardStreamsAndNoOtherDescriptor) {
    tessaron::UniqueFd const inheritable(::open("/dev/null", O_RDONLY));
    auto const session = PtySession::spawn();
    // The interactive shell itself opens 10 and more.
    EXPECT_EQ(answer_to(*session, "for fd in 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$fd ] && echo $fd;"
                                  " done"),
              "");
}

TEST(PtySession, TheShellHasItsSignalsInTheirDefaultState) {
    std::unique_ptr<PtySession> session;
    test::with_odd_signal_state([&] { session = PtySession::spawn(); });
    test::expect_default_signal_state(answer_to(*session, test::K_SHOW_SIGNAL_STATE));
}

TEST(PtySession, IsResized) {
    auto const session = PtySession::spawn();
    session->resize(120, 40);
    EXPECT_EQ(answer_to(*session, "stty size"), "40 120\r\n");
    session->resize(65535, 0);
    EXPECT_EQ(answer_to(*session, "stty size"), "0 65535\r\n");
}

TEST(PtySession, PassesEveryByteThrough) {
    auto const session = PtySession::spawn();
    std::string text;
    for (int i = 0; i < 100'000; ++i) {
        text += static_cast<char>(i % 256);
    }
    answer_to(*session, "true");
    ASSERT_TRUE(session->write_input("stty raw; echo rea''dy; exec cat\n"));
    read_until(*session, "ready\n");
    std::thread typist([&] { EXPECT_TRUE(session->write_input(text)); });
    std::string output;
    std::array<char, 4096> piece;
    while (output.size() < text.size()) {
        output.append(piece.data(), session->read_output(piece.data(), piece.size()));
    }
    typist.join();
    EXPECT_EQ(output, text);
}

TEST(PtySession, TheEndOfTheShellEndsTheOutput) {
    auto const session = PtySession::spawn();
    ASSERT_TRUE(session->write_input("echo las''t; exit\n"));
    EXPECT_NE(read_until(*session, "nothing like this").find("last\r\n"), std::string::npos);
}

TEST(PtySession, KeysForAShellThatHasEndedAreGivenUpWhenTheTerminalIsFull) {
    auto const session = PtySession::spawn();
    ASSERT_TRUE(session->write_input("exit\n"));
    read_until(*session, "nothing like this");
    EXPECT_FALSE(session->write_input(std::string(1'000'000, 'x')));
}

TEST(PtySession, TerminatesOnceAndNeverAgain) {
    auto const session = PtySession::spawn();
    EXPECT_GE(session->master_fd(), 0);
    session->terminate();
    EXPECT_EQ(session->master_fd(), -1);
    EXPECT_TRUE(test::children().empty());
    session->terminate();
    session->resize(1, 1);
    EXPECT_FALSE(session->write_input("x"));
    std::array<char, 16> piece;
    EXPECT_EQ(session->read_output(piece.data(), piece.size()), 0U);
}

TEST(PtySession, ItsEndLeavesNoDescriptorAndNoChild) {
    std::size_t const descriptors = test::descriptor_count();
    for (int i = 0; i < 20; ++i) {
        EXPECT_NE(PtySession::spawn(), nullptr);
    }
    EXPECT_EQ(test::descriptor_count(), descriptors);
    EXPECT_TRUE(test::children().empty());
}

TEST(PtySession, ThereIsNoneWithoutDescriptors) {
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    std::vector<rlim_t> refused;
    for (rlim_t free = 0; free < 3; ++free) {
        rlimit const few{3 + free, former.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        auto const session = PtySession::spawn();
        setrlimit(RLIMIT_NOFILE, &former);
        if (session == nullptr) {
            refused.push_back(free);
        }
    }
    EXPECT_GE(refused.size(), 2U);
    EXPECT_TRUE(test::children().empty());
}

TEST(PtySession, AnInterruptEndsAReadThatIsUnderWay) {
    auto const session = PtySession::spawn();
    answer_to(*session, "true");
    std::thread reader([&] { read_until(*session, "nothing like this"); });
    session->interrupt();
    reader.join();
}

/// A terminal whose program does not read, until it takes no more input.
std::unique_ptr<PtySession> full_terminal() {
    auto session = PtySession::spawn();
    answer_to(*session, "true");
    EXPECT_TRUE(session->write_input("stty raw; echo rea''dy; exec sleep 1000\n"));
    read_until(*session, "ready\n");
    return session;
}

TEST(PtySession, AnInterruptEndsAWriteThatIsUnderWay) {
    auto const session = full_terminal();
    std::thread typist([&] { EXPECT_FALSE(session->write_input(std::string(1'000'000, 'x'))); });
    session->interrupt();
    typist.join();
}

TEST(PtySession, AWriteThatIsUnderWayEndsWithItsPeer) {
    auto const session = full_terminal();
    test::SocketPair pair;
    tessaron::UniqueFd const ours(pair.ends[0]);
    test::WsPeer peer(pair.ends[1]);
    std::thread typist(
        [&] { EXPECT_FALSE(session->write_input(std::string(1'000'000, 'x'), ours.get())); });
    peer.close();
    typist.join();
}

TEST(PtySession, AShellThatIsHungUpAtOnceEndsThoughThisProcessCatchesOrIgnoresTheSignal) {
    void (*const catching)(int) = [](int /*signal*/) {};
    for (auto* const disposition : {catching, SIG_IGN}) {
        auto* const former = std::signal(SIGHUP, disposition);
        for (int i = 0; i < 100; ++i) {
            auto const session = PtySession::spawn();
            ASSERT_NE(session, nullptr);
            session->terminate(); // which waits for the shell
        }
        std::signal(SIGHUP, former);
    }
    EXPECT_TRUE(test::children().empty());
}

TEST(PtySession, HangsUpTheJobInTheForeground) {
    tessaron::test::TemporaryDirectory const directory;
    std::string const pid_file = directory / "pid";
    auto const session = PtySession::spawn();
    ASSERT_TRUE(session->write_input("sh -c 'echo $$ >" + pid_file + "; exec sleep 1000'\n"));
    pid_t const job = test::pid_in(pid_file);
    session->terminate();
    test::expect_ends(job);
}

bool is_open(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(PtySession, AShellThatIgnoresTheHangUpIsWaitedFor) {
    tessaron::test::TemporaryDirectory const directory;
    std::string const gate = directory / "gate";
    std::string const pid_file = directory / "pid";
    auto const session = PtySession::spawn();
    ASSERT_TRUE(session->write_input("trap '' HUP; sh -c 'echo $$ >" + pid_file + "; until [ -e " +
                                     gate + " ]; do sleep 0.01; done; : >" + gate + "2'\n"));
    pid_t const job = test::pid_in(pid_file);
    int const master = session->master_fd();
    std::thread opener([&] {
        tessaron::test::wait_until([&] { return !is_open(master); }, "it is hung up");
        EXPECT_TRUE(test::is_alive(job));
        EXPECT_TRUE(tessaron::write_file(gate, "", O_TRUNC));
    });
    session->terminate();
    opener.join();
    EXPECT_TRUE(tessaron::read_file(gate + "2").has_value());
    EXPECT_TRUE(test::children().empty());
}

/// Types a command, stops, and waits for the end of the process whose id the command wrote.
void expect_stop_ends(std::string const& command, bool stop_first) {
    tessaron::test::TemporaryDirectory const directory;
    std::string const pid_file = directory / "pid";
    std::stop_source stop;
    auto const session = PtySession::spawn(stop.get_token());
    ASSERT_TRUE(session->write_input("pid_file=" + pid_file + "; " + command + "\n"));
    pid_t const stubborn = test::pid_in(pid_file);
    if (stop_first) {
        stop.request_stop();
        session->terminate();
    } else {
        std::thread waiter([&] { session->terminate(); });
        stop.request_stop();
        waiter.join();
    }
    test::expect_ends(stubborn);
    EXPECT_TRUE(test::children().empty());
}

TEST(PtySession, AStopEndsAShellThatIgnoresTheHangUp) {
    for (bool const stop_first : {true, false}) {
        expect_stop_ends("trap '' HUP; echo $$ >$pid_file; while :; do sleep 1000; done",
                         stop_first);
    }
}

TEST(PtySession, AStopEndsAJobThatIgnoresTheHangUp) {
    expect_stop_ends("sh -c 'trap \"\" HUP; echo $$ >'$pid_file'; while :; do sleep 1000; done'",
                     true);
}

TEST(PtySession, AStopLeavesAJobInTheBackgroundThatIgnoresTheHangUp) {
    tessaron::test::TemporaryDirectory const directory;
    std::string const pid_file = directory / "pid";
    std::stop_source stop;
    auto const session = PtySession::spawn(stop.get_token());
    ASSERT_TRUE(session->write_input("nohup sh -c 'echo $$ >" + pid_file +
                                     "; exec sleep 1000' >/dev/null 2>&1 &\n"));
    pid_t const job = test::pid_in(pid_file);
    stop.request_stop();
    session->terminate();
    test::end_process(job);
}

} // namespace
} // namespace mirelclient
