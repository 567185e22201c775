#include "libraries/interfaces/socket/Socket.hpp"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <utility>

namespace proto::interface {
namespace {

bool is_open_in_the_system(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

TEST(Socket, IsMadeOfTheTypeAndNotHandedOn) {
    for (int const type : {SOCK_STREAM, SOCK_DGRAM}) {
        Socket const socket = Socket::make(type);
        ASSERT_TRUE(socket.is_open());
        int made = 0;
        socklen_t size = sizeof(made);
        ASSERT_EQ(::getsockopt(socket.descriptor(), SOL_SOCKET, SO_TYPE, &made, &size), 0);
        EXPECT_EQ(made, type);
        EXPECT_EQ(::fcntl(socket.descriptor(), F_GETFD), FD_CLOEXEC);
    }
}

TEST(Socket, OfNoTypeIsNotOpen) {
    EXPECT_FALSE(Socket::make(-1).is_open());
    EXPECT_FALSE(Socket().is_open());
}

TEST(Socket, ClosesWithItsObject) {
    int descriptor = -1;
    {
        Socket const socket = Socket::make(SOCK_STREAM);
        descriptor = socket.descriptor();
        ASSERT_TRUE(is_open_in_the_system(descriptor));
    }
    EXPECT_FALSE(is_open_in_the_system(descriptor));
}

TEST(Socket, ClosesOnce) {
    Socket socket = Socket::make(SOCK_STREAM);
    int const descriptor = socket.descriptor();
    socket.close();
    EXPECT_FALSE(socket.is_open());
    EXPECT_FALSE(is_open_in_the_system(descriptor));
    Socket const next = Socket::make(SOCK_STREAM); // Gets the same number.
    socket.close();
    EXPECT_TRUE(is_open_in_the_system(next.descriptor()));
}

TEST(Socket, MovesAndLeavesNone) {
    Socket first = Socket::make(SOCK_STREAM);
    int const descriptor = first.descriptor();
    Socket second(std::move(first));
    EXPECT_EQ(second.descriptor(), descriptor);
    Socket third = Socket::make(SOCK_DGRAM);
    int const replaced = third.descriptor();
    third = std::move(second);
    EXPECT_EQ(third.descriptor(), descriptor);
    EXPECT_FALSE(is_open_in_the_system(replaced));
    EXPECT_TRUE(is_open_in_the_system(descriptor));
}

TEST(Socket, TellsWhichOptionsTheSystemHas) {
    Socket const socket = Socket::make(SOCK_STREAM);
    EXPECT_TRUE(socket.set_option(IPPROTO_TCP, TCP_NODELAY, 1));
    EXPECT_FALSE(socket.set_option(IPPROTO_TCP, 12345, 1));
    EXPECT_EQ(errno, ENOPROTOOPT);
    EXPECT_FALSE(Socket().set_option(IPPROTO_TCP, TCP_NODELAY, 1));
    EXPECT_EQ(errno, EBADF);
}

TEST(Socket, EndsForItsPeerWhenItIsShutDown) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    Socket const one(ends[0]);
    Socket const other(ends[1]);
    one.shut_down(SHUT_WR);
    char byte = 0;
    EXPECT_EQ(::recv(other.descriptor(), &byte, 1, 0), 0);
    ASSERT_EQ(::send(other.descriptor(), "x", 1, 0), 1);
    EXPECT_EQ(::recv(one.descriptor(), &byte, 1, 0), 1);
    one.shut_down();
    EXPECT_EQ(::recv(one.descriptor(), &byte, 1, 0), 0);
}

} // namespace
} // namespace proto::interface
