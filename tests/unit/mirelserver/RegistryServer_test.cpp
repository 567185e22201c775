#include "mirelserver/RegistryServer.hpp"

#include "app/utilities/file_io.hpp"
#include "tests/support/TemporaryDirectory.hpp"

#include <array>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace mirelserver {
namespace {

std::string fetch(unsigned short port, std::string const& target) {
    tessaron::UniqueFd const peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(peer.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        !tessaron::write_all(peer.get(), "GET " + target + " HTTP/1.0\r\n\r\n")) {
        return "no connection";
    }
    std::string reply;
    std::array<char, 4096> block{};
    for (ssize_t got = 0; (got = read(peer.get(), block.data(), block.size())) > 0;) {
        reply.append(block.data(), static_cast<std::size_t>(got));
    }
    return reply;
}

class RegistryServerTest : public testing::Test {
protected:
    ServerOptions options() const { return {"127.0.0.1", 0, directory_.path(), 3, 0}; }

    tessaron::test::TemporaryDirectory directory_;
};

TEST_F(RegistryServerTest, ManyThreadsServeManyPeersAtOnce) {
    std::string const text = R"({"packages":[")" + std::string(100'000, 'n') + R"("]})";
    ASSERT_TRUE(tessaron::write_file(directory_ / "packages.json", text, O_TRUNC));
    RegistryServer server(options());
    std::jthread const runner([&server] { server.run(); });
    std::atomic<int> whole = 0;
    {
        std::vector<std::jthread> peers;
        for (int i = 0; i < 8; ++i) {
            peers.emplace_back([&] {
                for (int k = 0; k < 10; ++k) {
                    whole += fetch(server.port(), "/api/packages").ends_with("\r\n\r\n" + text);
                }
            });
        }
    }
    server.stop();
    EXPECT_EQ(whole, 80);
}

TEST_F(RegistryServerTest, ItsAddressTellsThePortThatWasFree) {
    RegistryServer const server(options());
    EXPECT_GT(server.port(), 0);
    EXPECT_EQ(server.url(), "http://127.0.0.1:" + std::to_string(server.port()) + "/");
}

TEST_F(RegistryServerTest, AMissingFolderIsToldAtTheStart) {
    ServerOptions wrong = options();
    wrong.registry = directory_ / "no";
    EXPECT_THROW(RegistryServer{wrong}, std::runtime_error);
}

TEST_F(RegistryServerTest, AnAddressInUseIsToldAtTheStart) {
    RegistryServer const first(options());
    ServerOptions second = options();
    second.port = first.port();
    EXPECT_THROW(RegistryServer{second}, std::runtime_error);
}

} // namespace
} // namespace mirelserver
