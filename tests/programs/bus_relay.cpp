// Joins the buses of two networks, and does to what it passes on whatever networks do:
//
//     bus_relay PROCESS SEED
//
// One bus is that of the network in which it is started, the other that of the network in which
// PROCESS is. It says "ready", then answers each line of its input by one line, until it ends:
//
//     damage LOSS DUPLICATION REORDERING CUT CORRUPTION    each a probability; answered by "damage"
//     counts                                               of the datagrams of each kind so far
//
// The same datagrams with the same SEED have the same fate; each direction draws by itself. What
// was corrupted never has a CRC that happens to match: of what is damaged by chance, the sixteen
// bits let through one in 65536.

#include "app/utilities/file_io.hpp"
#include "libraries/crc/crcFast/CrcFast.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <random>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using Datagram = std::vector<unsigned char>;

constexpr char const* K_GROUP = "239.255.19.35";
constexpr std::uint16_t K_PORT = 47765;

[[noreturn]] void fail(char const* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

template <typename Value>
void set_option(int fd, int level, int option, Value const& value) {
    if (::setsockopt(fd, level, option, &value, sizeof(value)) != 0) {
        fail("setsockopt");
    }
}

sockaddr_in address(char const* host, std::uint16_t port) {
    sockaddr_in made{};
    made.sin_family = AF_INET;
    made.sin_port = htons(port);
    ::inet_pton(AF_INET, host, &made.sin_addr);
    return made;
}

tessaron::UniqueFd bound_socket(std::uint16_t port) {
    tessaron::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    set_option(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    set_option(fd.get(), SOL_SOCKET, SO_REUSEPORT, 1);
    sockaddr_in const own = address("0.0.0.0", port);
    if (::bind(fd.get(), reinterpret_cast<sockaddr const*>(&own), sizeof(own)) != 0) {
        fail("bind");
    }
    return fd;
}

/// The bus of the network that the thread is in at construction. It hears what others send there.
class Bus {
public:
    Bus() : receiver_(bound_socket(K_PORT)), sender_(bound_socket(0)) {
        ip_mreq membership{};
        membership.imr_multiaddr = address(K_GROUP, 0).sin_addr;
        set_option(receiver_.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0);
        set_option(receiver_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, membership);
        set_option(receiver_.get(), SOL_SOCKET, SO_RCVBUFFORCE, 16 << 20);
        sockaddr_in own{};
        socklen_t size = sizeof(own);
        ::getsockname(sender_.get(), reinterpret_cast<sockaddr*>(&own), &size);
        own_port_ = own.sin_port;
    }

    int descriptor() const { return receiver_.get(); }

    /// The next datagram, if one is there.
    std::optional<Datagram> receive() {
        sockaddr_in from{};
        socklen_t from_size = sizeof(from);
        ssize_t const size = ::recvfrom(receiver_.get(), room_.data(), room_.size(), MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr*>(&from), &from_size);
        if (size < 0) {
            return std::nullopt;
        }
        if (from.sin_port == own_port_) {
            return Datagram(); // What came from the other bus does not go back there.
        }
        return Datagram(room_.begin(), room_.begin() + size);
    }

    void send(Datagram const& datagram) {
        static sockaddr_in const group = address(K_GROUP, K_PORT);
        if (::sendto(sender_.get(), datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr const*>(&group), sizeof(group)) < 0) {
            fail("sendto");
        }
    }

private:
    tessaron::UniqueFd receiver_;
    tessaron::UniqueFd sender_;
    in_port_t own_port_ = 0;
    std::array<unsigned char, 65536> room_;
};

struct Probabilities {
    double loss = 0;
    double duplication = 0;
    double reordering = 0;
    double cut = 0;
    double corruption = 0;
};

struct Counts {
    std::uint64_t came = 0;
    std::uint64_t lost = 0;
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;
    std::uint64_t cut = 0;
    std::uint64_t corrupted = 0;
};

/// One direction.
class Line {
public:
    Line(Bus& from, Bus& to, unsigned seed) : from_(from), to_(to), dice_(seed) {}

    void pass_on_all(Probabilities const& odds) {
        while (auto datagram = from_.receive()) {
            if (!datagram->empty()) {
                pass_on(std::move(*datagram), odds);
            }
        }
    }

    /// What is held back would wait for others to overtake it for ever.
    void let_go() {
        if (held_) {
            to_.send(*held_);
            held_.reset();
        }
    }

    Counts const& counts() const { return counts_; }

private:
    static constexpr std::size_t K_PREFIX_SIZE = 4;
    static constexpr std::size_t K_CRC_SIZE = 2;
    static constexpr std::uint32_t K_MAX_OVERTAKING = 16;
    static constexpr std::uint32_t K_MAX_CORRUPTED_BYTES = 4;

    bool happens(double probability, std::uint64_t& count) {
        bool const does = std::generate_canonical<double, 32>(dice_) < probability;
        count += does ? 1 : 0;
        return does;
    }
    std::size_t draw(std::size_t limit) { return dice_() % limit; }

    void pass_on(Datagram datagram, Probabilities const& odds) {
        ++counts_.came;
        if (happens(odds.loss, counts_.lost)) {
            return;
        }
        if (happens(odds.cut, counts_.cut)) {
            datagram.resize(draw(datagram.size()));
        } else if (happens(odds.corruption, counts_.corrupted)) {
            corrupt(datagram);
        }
        bool const is_held_up = !held_ && happens(odds.reordering, counts_.reordered);
        bool const is_doubled = happens(odds.duplication, counts_.duplicated);
        if (!is_held_up) {
            to_.send(datagram);
            overtake();
        }
        if (is_doubled) {
            to_.send(datagram);
        }
        if (is_held_up) {
            held_ = std::move(datagram);
            to_overtake_ = 1 + draw(K_MAX_OVERTAKING);
        }
    }

    void overtake() {
        if (held_ && --to_overtake_ == 0) {
            let_go();
        }
    }

    void corrupt(Datagram& datagram) {
        do {
            for (std::size_t i = 1 + draw(K_MAX_CORRUPTED_BYTES); i > 0; --i) {
                datagram[draw(datagram.size())] ^= static_cast<unsigned char>(1 + draw(255));
            }
        } while (looks_intact(datagram));
    }

    static bool looks_intact(Datagram const& datagram) {
        if (datagram.size() < K_PREFIX_SIZE + K_CRC_SIZE) {
            return false;
        }
        Datagram counted(datagram.begin() + K_PREFIX_SIZE, datagram.end() - K_CRC_SIZE);
        unsigned const crc = proto::CrcFast().calc({counted.data(), counted.size()}) & 0xFFFF;
        return datagram.end()[-2] == crc >> 8 && datagram.end()[-1] == (crc & 0xFF);
    }

    Bus& from_;
    Bus& to_;
    std::mt19937 dice_;
    Counts counts_;
    std::optional<Datagram> held_;
    std::size_t to_overtake_ = 0;
};

/// The network of another process becomes this thread's.
void enter_network_of(std::string const& process) {
    std::string const path = "/proc/" + process + "/ns/net";
    tessaron::UniqueFd const network(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!network.is_open() || ::setns(network.get(), CLONE_NEWNET) != 0) {
        fail("setns");
    }
}

class Relay {
public:
    Relay(Bus& near, Bus& far, unsigned seed)
        : buses_{&near, &far}, there_(near, far, seed), back_(far, near, seed + 1) {}

    void run() {
        std::array<pollfd, 3> waited{{{STDIN_FILENO, POLLIN, 0},
                                      {buses_[0]->descriptor(), POLLIN, 0},
                                      {buses_[1]->descriptor(), POLLIN, 0}}};
        while (::poll(waited.data(), waited.size(), -1) > 0) {
            there_.pass_on_all(odds_);
            back_.pass_on_all(odds_);
            std::string line;
            if (waited[0].revents != 0) {
                if (!std::getline(std::cin, line)) {
                    return;
                }
                obey(line);
            }
        }
        fail("poll");
    }

private:
    void obey(std::string const& line) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "damage") {
            words >> odds_.loss >> odds_.duplication >> odds_.reordering >> odds_.cut >>
                odds_.corruption;
            there_.let_go();
            back_.let_go();
            std::cout << "damage" << std::endl;
            return;
        }
        std::cout << "counts";
        for (auto const member : {&Counts::came, &Counts::lost, &Counts::duplicated,
                                  &Counts::reordered, &Counts::cut, &Counts::corrupted}) {
            std::cout << ' ' << there_.counts().*member + back_.counts().*member;
        }
        std::cout << std::endl;
    }

    std::array<Bus*, 2> buses_;
    Line there_;
    Line back_;
    Probabilities odds_;
};

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 3) {
            throw std::invalid_argument("PROCESS SEED");
        }
        Bus near;
        enter_network_of(argv[1]);
        Bus far;
        std::cout << "ready" << std::endl;
        Relay(near, far, static_cast<unsigned>(std::stoul(argv[2]))).run();
    } catch (std::exception const& error) {
        std::cerr << "bus_relay: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
