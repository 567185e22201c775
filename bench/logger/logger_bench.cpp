// Two figures of the logger, each beside spdlog's asynchronous file logger doing the same work:
//   - what one line costs the thread that logs it (median, in a burst that no queue has to block);
//   - how many lines a second reach the file, each flushed by itself, until all are there.
// The two take turns round by round and the ratio is taken within a round, so that a machine busy
// with other things disturbs both alike. Usage: logger_bench [rounds]
#include "logger/Logger.hpp"
#include "logger/SystemTimeProvider.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#define SPDLOG_LEVEL_NAMES                                                                         \
    { "TRACE", "DEBUG", "INFO", "WARNING", "ERROR", "CRITICAL", "OFF" }
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using tessaron::Logger;
using tessaron::LogLevel;
using tessaron::test::TemporaryDirectory;
using Clock = std::chrono::steady_clock;

constexpr int K_DEFAULT_ROUNDS = 15;
constexpr int K_BLOCKS = 500; // a burst is this many blocks; spdlog's queue has room for 8192
constexpr int K_LINES_PER_BLOCK = 8;
constexpr int K_SUSTAINED_LINES = 40'000;
constexpr std::size_t K_SPDLOG_QUEUE = 8192;

double median(std::vector<double> values) {
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double nanoseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::nano>(duration).count();
}

/// A logger under test: it writes request lines into a file of its own.
class Contender {
public:
    virtual ~Contender() = default;
    virtual void log_line(int request) = 0;
    /// Returns when everything logged is in the file.
    virtual void drain() = 0;
};

class Ours final : public Contender {
public:
    explicit Ours(std::string const& directory) : logger_("bench", LogLevel::TRACE, clock_) {
        if (!logger_.redirect_to_file(directory + "/app.log")) {
            throw std::runtime_error("no log file");
        }
        logger_.flush();
    }
    void log_line(int request) override {
        logger_.log(LogLevel::INFO, "request ", request, " from 10.0.0.17 served in ", request % 97,
                    " ms");
    }
    void drain() override { logger_.flush(); }

private:
    tessaron::SystemTimeProvider clock_;
    Logger logger_;
};

class Spdlog final : public Contender {
public:
    explicit Spdlog(std::string const& directory)
        : pool_(std::make_shared<spdlog::details::thread_pool>(K_SPDLOG_QUEUE, 1)) {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory + "/app.log");
        logger_ = std::make_shared<spdlog::async_logger>("bench", std::move(sink), pool_,
                                                         spdlog::async_overflow_policy::block);
        logger_->set_level(spdlog::level::trace);
        logger_->flush_on(spdlog::level::trace);
        logger_->set_pattern("[%n] [%l] [%Y-%m-%d_%H:%M:%S.%e] %v");
    }
    void log_line(int request) override {
        logger_->info("request {} from 10.0.0.17 served in {} ms", request, request % 97);
    }
    /// Its worker ends behind the last line; there is no other way to wait for it.
    void drain() override { pool_.reset(); }

private:
    std::shared_ptr<spdlog::details::thread_pool> pool_;
    std::shared_ptr<spdlog::async_logger> logger_;
};

using Make = std::function<std::unique_ptr<Contender>(std::string const&)>;

/// Times one thread's share of a burst. Lines are timed a few at a time, so that looking at the
/// clock, which costs as much as a quarter of a line, weighs little.
std::vector<double> time_lines(Contender& contender, int blocks) {
    std::vector<double> costs;
    costs.reserve(static_cast<std::size_t>(blocks));
    for (int block = 0; block < blocks; ++block) {
        auto const before = Clock::now();
        for (int i = 0; i < K_LINES_PER_BLOCK; ++i) {
            contender.log_line(block + i);
        }
        costs.push_back(nanoseconds(Clock::now() - before) / K_LINES_PER_BLOCK);
    }
    return costs;
}

/// Median cost of a line to the threads that log, in a burst shared by all of them.
double cost_of_a_line(Make const& make, int thread_count) {
    TemporaryDirectory const directory;
    auto const contender = make(directory.path());
    std::vector<std::vector<double>> costs(static_cast<std::size_t>(thread_count));
    std::vector<std::thread> threads;
    for (std::vector<double>& share : costs) {
        threads.emplace_back([&] { share = time_lines(*contender, K_BLOCKS / thread_count); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    contender->drain();
    std::vector<double> all;
    for (std::vector<double> const& share : costs) {
        all.insert(all.end(), share.begin(), share.end());
    }
    return median(std::move(all));
}

/// Request lines in all files of a directory; each must read as the first one does.
int count_request_lines(std::string const& directory) {
    int count = 0;
    for (auto const& entry : std::filesystem::directory_iterator(directory)) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("[bench] [INFO] [2") && line.find("] request ") == 39 &&
                line.ends_with(" ms")) {
                ++count;
            }
        }
    }
    return count;
}

double lines_per_second(Make const& make, int thread_count) {
    TemporaryDirectory const directory;
    auto const contender = make(directory.path());
    int const per_thread = K_SUSTAINED_LINES / thread_count;

    auto const start = Clock::now();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < thread_count; ++thread) {
        threads.emplace_back([&contender, per_thread] {
            for (int i = 0; i < per_thread; ++i) {
                contender->log_line(i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    contender->drain();
    double const seconds = nanoseconds(Clock::now() - start) / 1e9;

    int const written = count_request_lines(directory.path());
    if (written != K_SUSTAINED_LINES) {
        throw std::runtime_error("only " + std::to_string(written) + " lines are in the file");
    }
    return K_SUSTAINED_LINES / seconds;
}

/// Lets both take turns and prints the medians and the median ratio.
void compare(std::string const& what, char const* unit, int rounds,
             std::function<double(Make const&)> const& measure) {
    Make const make_ours = [](std::string const& d) { return std::make_unique<Ours>(d); };
    Make const make_peer = [](std::string const& d) { return std::make_unique<Spdlog>(d); };
    std::vector<double> ours;
    std::vector<double> peer;
    std::vector<double> ratios;
    for (int round = 0; round < rounds; ++round) {
        // The order changes too, so that neither always comes second.
        if (round % 2 == 0) {
            ours.push_back(measure(make_ours));
            peer.push_back(measure(make_peer));
        } else {
            peer.push_back(measure(make_peer));
            ours.push_back(measure(make_ours));
        }
        ratios.push_back(ours.back() / peer.back());
    }
    std::printf("%-42s ours %9.0f  spdlog %9.0f  %-8s ours/spdlog %.2f\n", what.c_str(),
                median(ours), median(peer), unit, median(ratios));
}

} // namespace

int main(int argc, char** argv) {
    int rounds = K_DEFAULT_ROUNDS;
    if (argc > 1) {
        std::from_chars(argv[1], argv[1] + std::strlen(argv[1]), rounds);
    }
    std::stringbuf announcements; // what our logger says before it has its file
    std::streambuf* const console = std::cout.rdbuf(&announcements);
    int status = 0;
    try {
        for (int const threads : {1, 4}) {
            std::string const who = ", " + std::to_string(threads) + " thread(s)";
            compare("cost of a line to its caller" + who, "ns", rounds,
                    [threads](Make const& make) { return cost_of_a_line(make, threads); });
            compare("lines on disk" + who, "lines/s", rounds,
                    [threads](Make const& make) { return lines_per_second(make, threads); });
        }
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "logger_bench: %s\n", failure.what());
        status = 1;
    }
    std::cout.rdbuf(console);
    return status;
}
