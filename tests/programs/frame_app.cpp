// An application on the frame that does what it is told on its standard input, one command a line,
// so that the tests can watch the frame from outside while it crashes, stops and starts anew:
//
//     log LEVEL TEXT        logs                             burst N          logs N lines
//     log-aside             logs on a side thread        publish TOPIC TEXT  an event with a text
//     crash HOW             crashes on a side thread         main-crash HOW   on the main thread
//     crash-together HOW    crashes on four threads at once  sink-crash HOW   on the log's thread
//     throw std|int         throws on a side thread          main-throw std|int
//     crash-on-stop HOW     crashes in the next stop
//     crash-in-handler      makes the handler of the next crash crash, too
//     unsafe-dump NAME      makes it call that function, which it must not
//     block-signals         the side thread blocks all signals but those of a crash
//     hold-allocator        a thread takes that lock for ever; see held_locks.hpp
//     hold-queue            the same for the lock of the log's queue
//     reboot REASON         requests a restart
//     runtime TEXT          sets the runtime state
//     sessions | crashes    prints the histories             stop             ends
//
// HOW: segv, abort, fpe, ill, bus, overflow (of the stack), or "raise N". A line "ready" tells that
// the application runs; every command is answered by a line "ok".
//
// Environment: FRAME_APP_CONFIG is the path of its configuration, so that several can run under
// names and in folders of their own. FRAME_APP_KEEP is the number of session archives to keep.
// FRAME_APP_PAUSE_BEFORE_SHELL names a FIFO; it is read to its end after the first look at the
// instance lock and before the attempt to take it.

#include "app/AppConfig.hpp"
#include "app/AppContext.hpp"
#include "app/ConsoleApp.hpp"
#include "app/instance_lock.hpp"
#include "app/utilities/file_io.hpp"
#include "generated/app/bus_fields.hpp"
#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"
#include "tests/programs/faults.hpp"
#include "tests/programs/held_locks.hpp"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <list>
#include <poll.h>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {

using TextField = tessaron::config::FieldSpec<char const*>;
using IntField = tessaron::config::FieldSpec<long long>;
using tessaron::LogLevel;
using tessaron::Mutex;
using tessaron::MutexLock;

constexpr TextField K_APP_NAME{"app_name", "Name", "frame_app"};
constexpr TextField K_APP_DESCRIPTION{"app_description", "One line", "Does what it is told"};
constexpr TextField K_APP_DIR{"app_dir", "Folder of the data", "/usr/local/daemon/frame_app"};
constexpr TextField K_LOG_DIR{"log_dir", "Folder of the log", "/usr/local/daemon/frame_app/log"};
constexpr IntField K_LOG_MIN_LEVEL{"log_min_level", "0 to 3", 1};
constexpr TextField K_GREETING{"greeting",
                               "Grüße, 世界 and a description that is long enough to be "
                               "wrapped in the table",
                               "héllo"};

constexpr auto K_ALL_FIELDS =
    std::tie(K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR, tessaron::K_BUS_MULTICAST_GROUP,
             tessaron::K_BUS_MULTICAST_PORT, tessaron::K_SHARED_BUS_ADDRESS, K_LOG_DIR,
             K_LOG_MIN_LEVEL, K_GREETING);

/// What the application does wrong in its own part of the crash handler.
std::atomic<bool> s_crash_in_handler{false};
std::atomic<char const*> s_unsafe_call{nullptr};

/// A state that is a text which stays where it is, as a crash handler needs it: a new one is put
/// beside it.
class FrameRuntime final : public tessaron::IRuntimeState {
public:
    explicit FrameRuntime(std::string const& /*path*/) {}

    std::string dump_named() const override { return *s_text.load(); }
    void save() override {}
    RawDump raw_dump_signal_safe() const noexcept override {
        if (s_crash_in_handler) {
            faults::write_to_nowhere();
        }
        if (char const* const call = s_unsafe_call) {
            faults::call_unsafe(call);
        }
        std::string const& text = *s_text.load();
        return {text.data(), text.size()};
    }

    /// On the thread of the commands.
    static void set(std::string const& text) { s_text = &s_texts.emplace_back(text); }

private:
    static inline std::list<std::string> s_texts{""};
    static inline std::atomic<std::string const*> s_text{&s_texts.front()};
};

LogLevel level_named(std::string const& name) {
    for (LogLevel const level : {LogLevel::TRACE, LogLevel::WARNING, LogLevel::ERROR}) {
        if (name == tessaron::to_string(level)) {
            return level;
        }
    }
    return LogLevel::INFO;
}

/// What the main thread does wrong on its way out, if anything.
struct MainFault {
    std::string crash;
    std::string exception;
};

class FrameApp : public tessaron::ConsoleApp<FrameApp, tessaron::DefaultTerminationReasons,
                                             std::tuple<>, FrameRuntime> {
public:
    explicit FrameApp(tessaron::AppContext& context) : ConsoleApp(context) {
        if (char const* const keep = std::getenv("FRAME_APP_KEEP")) {
            app_control().set_session_archive_keep_count(std::strtoull(keep, nullptr, 10));
        }
    }
    ~FrameApp() override {
        if (commands_.joinable()) {
            commands_.join();
        }
    }

    void user_signal_handler(int) override { request_stop(); }

private:
    int run_impl() override {
        commands_ = tessaron::start_thread("commands", [this] { obey(); });
        std::puts("ready");
        std::fflush(stdout);
        wait_until_stopped();
        stopping_ = true;
        MainFault const fault = main_fault();
        if (!fault.crash.empty()) {
            faults::crash(fault.crash);
        }
        if (!fault.exception.empty()) {
            faults::throw_something(fault.exception);
        }
        return 0;
    }

    void obey() {
        std::string line;
        while (next_line(line)) {
            auto const space = line.find(' ');
            std::string const rest = space == std::string::npos ? "" : line.substr(space + 1);
            do_command(line.substr(0, space), rest);
            std::puts("ok");
            std::fflush(stdout);
        }
    }

    /// False at the end of the input or of the application.
    bool next_line(std::string& line) {
        line.clear();
        for (;;) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            if (::poll(&input, 1, 20) == 0) {
                if (stopping_) {
                    return false;
                }
                continue;
            }
            char byte = 0;
            if (::read(STDIN_FILENO, &byte, 1) != 1) {
                return false;
            }
            if (byte == '\n') {
                return true;
            }
            line += byte;
        }
    }

    void do_command(std::string const& name, std::string const& rest) {
        if (name == "log") {
            context().log().log(level_named(rest.substr(0, rest.find(' '))),
                                rest.substr(rest.find(' ') + 1));
        } else if (name == "burst") {
            for (long number = std::atol(rest.c_str()); number > 0; --number) {
                context().log().log(LogLevel::INFO, "burst ", number);
            }
        } else if (name == "publish") {
            auto const space = rest.find(' ');
            context().hub().publish(rest.substr(0, space),
                                    {{{"text", rest.substr(space + 1)}}, {}});
        } else if (name == "crash") {
            faults::crash(rest);
        } else if (name == "throw") {
            faults::throw_something(rest);
        } else if (name == "crash-on-stop") {
            set_main_fault({rest, ""});
        } else if (name == "main-crash") {
            set_main_fault({rest, ""});
            request_stop();
        } else if (name == "main-throw") {
            set_main_fault({"", rest});
            request_stop();
        } else if (name == "crash-in-handler") {
            s_crash_in_handler = true;
        } else if (name == "unsafe-dump") {
            static std::string const s_name = rest;
            s_unsafe_call = s_name.c_str();
        } else if (name == "block-signals") {
            faults::block_other_signals();
        } else if (name == "crash-together") {
            faults::crash_together(rest);
        } else if (name == "sink-crash") {
            context().logger().register_line_sink(
                [rest](std::uint64_t, std::string const&, std::uint64_t) { faults::crash(rest); });
        } else if (name == "hold-allocator") {
            held_locks::hold_allocator();
        } else if (name == "hold-queue") {
            held_locks::hold_log_queue(context().logger());
        } else if (name == "log-aside") {
            held_locks::log_aside(context().logger());
        } else if (name == "reboot") {
            app_control().request_reboot(rest);
        } else if (name == "stop") {
            request_stop();
        } else if (name == "runtime") {
            FrameRuntime::set(rest);
        } else if (name == "sessions") {
            print_sessions();
        } else if (name == "crashes") {
            print_crashes();
        }
    }

    MainFault main_fault() TESSARON_EXCLUDES(main_fault_mutex_) {
        MutexLock lock(main_fault_mutex_);
        return main_fault_;
    }

    void set_main_fault(MainFault fault) TESSARON_EXCLUDES(main_fault_mutex_) {
        MutexLock lock(main_fault_mutex_);
        main_fault_ = std::move(fault);
    }

    void print_sessions() {
        for (auto const& record : app_control().session_history(0)) {
            std::puts(record.is_start ? tessaron::format_session_start(record).c_str()
                                      : tessaron::format_session_stop(record).c_str());
        }
    }

    void print_crashes() {
        for (auto const& record : app_control().crash_history(0, 0)) {
            std::puts(tessaron::format_crash_header_line(record).c_str());
            if (!record.detail.empty()) {
                std::printf("detail: %s\n", record.detail.c_str());
            }
            std::printf("frames: %zu\n", record.backtrace.size());
        }
    }

    Mutex main_fault_mutex_;
    MainFault main_fault_ TESSARON_GUARDED_BY(main_fault_mutex_);
    std::atomic<bool> stopping_{false};
    std::thread commands_;
};

std::string config_path() {
    char const* const told = std::getenv("FRAME_APP_CONFIG");
    return told != nullptr ? told : tessaron::config::AppConfig<K_ALL_FIELDS>::default_path();
}

/// Lets somebody else take the lock that the context has seen free.
void pause_if_told() {
    if (char const* const fifo = std::getenv("FRAME_APP_PAUSE_BEFORE_SHELL")) {
        std::ignore = tessaron::read_file(fifo);
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::filesystem::create_directories(K_APP_DIR.default_value);
        static tessaron::config::JsonConfigCodec const codec;
        static tessaron::config::ConfigStore<8192> config(K_ALL_FIELDS, codec, config_path());
        static tessaron::AppContext context(config, argc, argv);
        pause_if_told();
        return FrameApp::instance(context).run(argc, argv);
    } catch (tessaron::AlreadyRunningError const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 255;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "Failed to start frame_app: %s\n", error.what());
        return 1;
    }
}
