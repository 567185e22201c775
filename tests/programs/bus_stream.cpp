// A node that sends numbered messages on the bus, or checks those of others. All bytes of a message
// follow from its number, so one that is damaged, cut, or made of pieces of several is noticed.
//
//     bus_stream receive ADDRESS TOPIC
//     bus_stream send ADDRESS TOPIC SIZES COUNT INTERVAL_MICROSECONDS [FIRST]
//     bus_stream send ADDRESS TOPIC SIZES COUNT acknowledged [FIRST]
//     bus_stream request ADDRESS TOPIC SIZES COUNT
//
// `receive` also answers requests on TOPIC.echo with what they brought. It says "ready", then
// answers each line of its input, "counts" or "memory", by one line, until the input ends.
// "repeated" are messages that had come before, "late" those that came behind one of a higher
// number. `send` takes its SIZES, separated by commas, in turn; FIRST is the first message's
// number, 1 unless told. "acknowledged" has no interval: the next message goes out when the
// receiver has answered a small request that followed the one before, or has not done so for a
// second.

#include "app/utilities/file_io.hpp"
#include "tests/support/MulticastNode.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <iostream>
#include <malloc.h>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using tessaron::test::MulticastNode;
using Bytes = proto::bus::Bytes;
using Arguments = std::vector<std::string>;

constexpr std::chrono::seconds K_TIMEOUT{1};
constexpr std::size_t K_HEAD_SIZE = 16; ///< The message's number and its size.

/// What stands at a place of a message, eight bytes each.
std::uint64_t word(std::uint64_t number, std::size_t place) {
    std::uint64_t mixed = number * 0x9E3779B97F4A7C15 + place * 0xD1B54A32D192ED03;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return mixed ^ mixed >> 31;
}

Bytes make_message(std::uint64_t number, std::size_t size) {
    Bytes message(std::max(size, K_HEAD_SIZE));
    std::uint64_t const stored_size = message.size();
    std::memcpy(message.data(), &number, sizeof(number));
    std::memcpy(message.data() + sizeof(number), &stored_size, sizeof(stored_size));
    for (std::size_t at = K_HEAD_SIZE; at < message.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t const bytes = word(number, at);
        std::memcpy(message.data() + at, &bytes, std::min(sizeof(bytes), message.size() - at));
    }
    return message;
}

/// The number, if the message is what was sent by that number.
std::optional<std::uint64_t> number_of(Bytes const& message) {
    std::uint64_t number = 0;
    if (message.size() < K_HEAD_SIZE) {
        return std::nullopt;
    }
    std::memcpy(&number, message.data(), sizeof(number));
    return make_message(number, message.size()) == message ? std::optional(number) : std::nullopt;
}

/// What has come. Written by the hub's worker alone.
struct Counts {
    static constexpr std::size_t K_MAX_NUMBER = std::size_t{1} << 22;

    void add(Bytes const& message) {
        auto const number = number_of(message);
        if (!number || *number >= K_MAX_NUMBER) {
            ++damaged;
        } else if (seen[*number]) {
            ++repeated;
        } else {
            seen[*number] = true;
            late += *number < highest ? 1 : 0;
            highest = std::max(highest, *number);
            ++received;
        }
    }

    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> damaged{0};
    std::atomic<std::uint64_t> repeated{0};
    std::atomic<std::uint64_t> late{0};

    std::uint64_t highest = 0;
    std::vector<bool> seen = std::vector<bool>(K_MAX_NUMBER);
};

/// In KiB, without what is free already and can be given back.
std::string resident_memory() {
    malloc_trim(0);
    std::string const status = tessaron::read_file("/proc/self/status").value_or("");
    std::string const label = "RssAnon:";
    return std::to_string(std::stoul(status.substr(status.find(label) + label.size())));
}

int receive(MulticastNode& node, std::string const& topic) {
    auto const counts =
        std::make_shared<Counts>(); // The node, and so its handlers, outlive this call.
    node.hub.subscribe_pattern(
        topic,
        [counts](std::string const&, Bytes const& message, auto const&) { counts->add(message); },
        "Numbered messages");
    node.hub.serve(
        topic + ".echo", [](Bytes const& message) { return message; }, "What came, once more");
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        if (line == "counts") {
            std::cout << "received " << counts->received << " damaged " << counts->damaged
                      << " repeated " << counts->repeated << " late " << counts->late << std::endl;
        } else {
            std::cout << "memory " << resident_memory() << std::endl;
        }
    }
    return 0;
}

std::vector<std::size_t> sizes_of(std::string const& text) {
    std::vector<std::size_t> sizes;
    std::istringstream stream(text);
    for (std::string size; std::getline(stream, size, ',');) {
        sizes.push_back(std::stoul(size));
    }
    return sizes;
}

int send(MulticastNode& node, Arguments const& arguments) {
    using Clock = std::chrono::steady_clock;
    std::string const& topic = arguments.at(3);
    auto const sizes = sizes_of(arguments.at(4));
    auto const count = std::stoull(arguments.at(5));
    bool const is_acknowledged = arguments.at(6) == "acknowledged";
    std::chrono::microseconds const interval(is_acknowledged ? 0 : std::stoi(arguments.at(6)));
    auto const first = arguments.size() > 7 ? std::stoull(arguments.at(7)) : 1;
    auto next = Clock::now();
    for (auto number = first; number < first + count; ++number) {
        node.hub.publish_event(topic, make_message(number, sizes[number % sizes.size()]));
        if (is_acknowledged) {
            std::ignore = node.hub.request(topic + ".echo", {}, K_TIMEOUT);
        } else {
            next = std::max(next + interval, Clock::now());
            std::this_thread::sleep_until(next);
        }
    }
    std::cout << "sent " << count << std::endl;
    return 0;
}

int request(MulticastNode& node, Arguments const& arguments) {
    auto const sizes = sizes_of(arguments.at(4));
    auto const count = std::stoull(arguments.at(5));
    std::uint64_t answered = 0;
    std::uint64_t damaged = 0;
    for (std::uint64_t number = 1; number <= count; ++number) {
        Bytes const asked = make_message(number, sizes[number % sizes.size()]);
        auto const answer = node.hub.request(arguments.at(3) + ".echo", asked, K_TIMEOUT);
        (answer && *answer == asked ? answered : damaged) += answer ? 1 : 0;
    }
    std::cout << "answered " << answered << " damaged " << damaged << std::endl;
    return 0;
}

int run(Arguments const& arguments) {
    std::string const& role = arguments.at(1);
    MulticastNode node(static_cast<std::uint32_t>(std::stoul(arguments.at(2))), "stream-" + role);
    node.hub.set_warning_sink([](std::string const& text) { std::cerr << text << '\n'; });
    node.join();
    if (role == "receive") {
        return receive(node, arguments.at(3));
    }
    return role == "send" ? send(node, arguments) : request(node, arguments);
}

} // namespace

int main(int argc, char** argv) {
    // What is free at the top of a thread's own arena cannot be given back.
    mallopt(M_ARENA_MAX, 1);
    try {
        return run(Arguments(argv, argv + argc));
    } catch (std::exception const& error) {
        std::cerr << "bus_stream: " << error.what() << '\n';
        return 1;
    }
}
