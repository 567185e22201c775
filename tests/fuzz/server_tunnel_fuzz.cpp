// What a machine may send over its tunnel: each stream gets its own data and nothing else, and
// every stream and the tunnel itself come to their end.

#include "mirelserver/Tunnel.hpp"
#include "tests/fuzz/require.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace mirelserver;
using namespace tessaron::tunnel;
using tcp = boost::asio::ip::tcp;

constexpr std::size_t K_STREAMS = 3;

struct Stream {
    std::shared_ptr<Channel> channel;
    std::string bytes;
    int ends = 0;
};

void read_all(std::shared_ptr<Stream> const& stream) {
    stream->channel->async_read([stream](std::string const& bytes) {
        stream->bytes += bytes;
        bytes.empty() ? static_cast<void>(++stream->ends) : read_all(stream);
    });
}

/// What the streams 1 to `K_STREAMS` are to get, read off the bytes themselves: data is handed on
/// as it comes, also that of a frame whose end never does.
std::vector<std::string> expected_of(std::string_view bytes) {
    std::vector<std::string> expected(K_STREAMS);
    std::array<bool, K_STREAMS> closed{};
    while (bytes.size() >= K_FRAME_HEADER_SIZE) {
        FrameHeaderBytes header_bytes{};
        bytes.copy(header_bytes.data(), header_bytes.size());
        bytes.remove_prefix(header_bytes.size());
        FrameHeader const header = decode_header(header_bytes);
        if (header.length > K_MAX_FRAME_PAYLOAD) {
            break;
        }
        std::size_t const stream = header.stream - std::size_t{1};
        if (stream < K_STREAMS && !closed[stream]) {
            if (header.type == FRAME_DATA) {
                expected[stream] += bytes.substr(0, header.length);
            }
            closed[stream] = header.type == FRAME_CLOSE && header.length <= bytes.size();
        }
        bytes.remove_prefix(std::min<std::size_t>(bytes.size(), header.length));
    }
    return expected;
}

/// The machine's end of a tunnel, as bytes.
class Machine {
    boost::asio::io_context context_{1}; // outlives the tunnel

public:
    Machine() {
        std::array<int, 2> ends{};
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0);
        end_ = ends[0];
        tcp::socket socket(context_);
        socket.assign(tcp::v4(), ends[1]);
        tunnel = std::make_shared<Tunnel>(std::move(socket), clients, nullptr, TunnelLimits());
        tunnel->run();
    }
    ~Machine() { close(end_); }
    Machine(Machine const&) = delete;
    Machine& operator=(Machine const&) = delete;

    void send(std::string_view bytes) const {
        require(write(end_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
    void hang_up() const { shutdown(end_, SHUT_WR); }

    void run_until_registered() {
        while (!clients->find("m", {})) {
            context_.restart();
            context_.run_one();
        }
    }
    /// Comes back when nothing is left to wait for.
    void run_to_the_end() {
        context_.restart();
        context_.run();
    }

    std::shared_ptr<ClientTable> clients = std::make_shared<ClientTable>();
    std::shared_ptr<Tunnel> tunnel;

private:
    int end_ = -1;
};

/// Hostile from its first byte on.
void connect(std::string_view bytes) {
    Machine machine;
    machine.send(bytes);
    machine.hang_up();
    machine.run_to_the_end();
    auto const listed = machine.clients->list({});
    require(listed.size() <= 1);
    for (auto const& client : listed) {
        require(is_client_name(client.name) && !client.tunnel);
        require(bytes.starts_with(encode_frame(FRAME_REGISTER, 0, client.name)) ||
                static_cast<std::uint8_t>(bytes[0]) == FRAME_REGISTER);
        require(bytes.substr(K_FRAME_HEADER_SIZE).starts_with(client.name));
    }
}

/// Hostile once it has registered and streams are open.
void serve(std::string_view bytes) {
    Machine machine;
    machine.send(encode_frame(FRAME_REGISTER, 0, "m"));
    machine.run_until_registered();
    std::vector<std::shared_ptr<Stream>> streams;
    for (std::size_t i = 0; i < K_STREAMS; ++i) {
        streams.push_back(std::make_shared<Stream>(Stream{machine.tunnel->open("http"), {}, 0}));
        read_all(streams.back());
    }
    machine.send(bytes);
    machine.hang_up();
    machine.run_to_the_end();
    auto const expected = expected_of(bytes);
    for (std::size_t i = 0; i < K_STREAMS; ++i) {
        require(streams[i]->bytes == expected[i]);
        require(streams[i]->ends == 1);
    }
    require(machine.clients->list({}).size() == 1);
    require(!machine.clients->find("m", {})->tunnel);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    // What a socket's buffer takes at once, so that one thread is enough.
    constexpr std::size_t most = 60'000;
    std::string_view const bytes(reinterpret_cast<char const*>(data), std::min(size, most));
    connect(bytes);
    serve(bytes);
    return 0;
}
