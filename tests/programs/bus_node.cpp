// A node on the bus and nothing else, which does what it is told on its standard input, one command
// a line:
//
//     bus_node ADDRESS NAME [--silence-ms N] [--probe-window-ms N] [--debounce-ms N]
//
//     join                             claims the address
//     who                              prints address and name
//     role NAME                        advertise TOPIC DESCRIPTION
//     publish TOPIC BYTES              publish-envelope TOPIC KEY VALUE BYTES
//     subscribe PATTERN [WHY]          subscribe-envelope TOPIC [WHY]       unsubscribe PATTERN
//     serve TOPIC [WHAT]               answers with what it is asked
//     serve-nothing TOPIC [WHAT]       throws instead
//     request TOPIC MS BYTES           prints "SOURCE SUMMARY" or "none"
//     collect ADDRESS TOPIC MS BYTES   prints lines "reply SOURCE SUMMARY", then their number
//     connect ADDRESS NAME             a client; prints its address         connect-resolved ...
//     client-leave CLIENT              client-serve CLIENT TOPIC [WHAT]
//     client-publish CLIENT TOPIC BYTES                client-send CLIENT ADDRESS TOPIC BYTES
//     client-subscribe CLIENT PATTERN                  client-request CLIENT ADDRESS TOPIC MS BYTES
//     discover | validate              devices | report | table | rejoins | drops: print these
//     compression on|off               quit
//
// BYTES are hexadecimal, "-" for none; a SUMMARY is their number and their CRC-32. A line "ready"
// tells that it listens, and every command is answered by a line "ok" or "error TEXT". In between
// come lines as things happen:
//
//     event PATTERN TOPIC HUB:ADDRESS SUMMARY          client-event CLIENT PATTERN TOPIC SOURCE
//     SUMMARY envelope TOPIC SUMMARY                           request TOPIC REQUESTER SUMMARY
//     client-request CLIENT TOPIC SUMMARY              warning TEXT

#include "tests/programs/BusNodeCommands.hpp"
#include "tests/programs/bus_node_text.hpp"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using bus_node::print_line;

struct Arguments {
    std::uint32_t address = 0;
    std::string name;
    tessaron::bus::Hub::Settings hub;
    proto::interface::MulticastTiming multicast;
};

Arguments parse(int argc, char** argv) {
    if (argc < 3 || argc % 2 == 0) {
        throw std::invalid_argument("bus_node ADDRESS NAME [--OPTION N]...");
    }
    Arguments arguments;
    arguments.address = static_cast<std::uint32_t>(std::stoul(argv[1]));
    arguments.name = argv[2];
    for (int i = 3; i < argc; i += 2) {
        std::string const option = argv[i];
        std::chrono::milliseconds const time(std::stol(argv[i + 1]));
        if (option == "--silence-ms") {
            arguments.multicast.silence_threshold = time;
        } else if (option == "--probe-window-ms") {
            arguments.hub.address_probe_window = time;
        } else if (option == "--debounce-ms") {
            arguments.hub.discovery_debounce = time;
        } else {
            throw std::invalid_argument("no option: " + option);
        }
    }
    return arguments;
}

void obey_all(tessaron::test::MulticastNode& node) {
    bus_node::BusNodeCommands commands(node);
    for (std::string line; std::getline(std::cin, line) && line != "quit";) {
        try {
            if (line == "join") {
                node.join();
                line = "who";
            }
            std::string const answer = commands.obey(line);
            print_line(answer.empty() ? "ok" : "ok " + answer);
        } catch (std::exception const& error) {
            print_line(std::string("error ") + error.what());
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        Arguments const arguments = parse(argc, argv);
        tessaron::test::MulticastNode node(arguments.address, arguments.name, arguments.hub,
                                           arguments.multicast);
        node.hub.set_warning_sink([](std::string const& text) { print_line("warning " + text); });
        print_line("ready");
        obey_all(node);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "bus_node: %s\n", error.what());
        return 1;
    }
    return 0;
}
