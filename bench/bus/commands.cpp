#include "bench/bus/commands.hpp"

#include "bench/support/statistics.hpp"

#include <iostream>
#include <sstream>
#include <string>

namespace bench::bus {

namespace {

/// Asleep, as one that has something to tell from time to time is.
void sleep_until(std::int64_t time) {
    timespec const until{time / 1'000'000'000, time % 1'000'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

void send(NearEnd const& end, std::istream& words) {
    std::uint32_t count = 0;
    std::size_t size = 0;
    std::int64_t pause = 0;
    Head head;
    words >> count >> size >> pause >> head.round;
    Bytes message(size, 0x5A);
    std::int64_t const begin = now();
    for (head.number = 0; head.number < count; ++head.number) {
        if (pause > 0) {
            sleep_until(begin + head.number * pause * 1000);
        }
        head.sent_at = now();
        stamp(message, head);
        end.send(message);
    }
    std::cout << "{\"begin\": " << begin << ", \"end\": " << now() << "}" << std::endl;
}

void ask(NearEnd const& end, std::istream& words) {
    std::size_t count = 0;
    std::size_t size = 0;
    words >> count >> size;
    Bytes const message(size, 0x5A);
    std::vector<double> times;
    std::size_t lost = 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::int64_t const begin = now();
        if (end.ask(message)) {
            times.push_back(static_cast<double>(now() - begin) / 1e3);
        } else {
            ++lost;
        }
    }
    std::cout << "{\"time\": " << (times.empty() ? 0 : median(times)) << ", \"lost\": " << lost
              << "}" << std::endl;
}

} // namespace

int obey_near(NearEnd const& end) {
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "send" && end.send) {
            send(end, words);
        } else if (command == "ask" && end.ask) {
            ask(end, words);
        } else {
            return 2;
        }
    }
    return 0;
}

int obey_far(Arrivals& arrivals) {
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "begin") {
            std::uint32_t round = 0;
            std::size_t expected = 0;
            words >> round >> expected;
            arrivals.begin(round, expected);
            std::cout << "{}" << std::endl;
        } else if (command == "report") {
            std::cout << arrivals.report() << std::endl;
        } else {
            return 2;
        }
    }
    return 0;
}

int run_end(int argc, char** argv, Ends const& ends) {
    auto const end = ends.find(argc > 1 ? argv[1] : "");
    return end != ends.end() ? end->second(argc > 2 ? argv[2] : "") : 2;
}

} // namespace bench::bus
