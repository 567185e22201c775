// The main() of tests that send datagrams to a group: they run in a network of their own, which has
// the loopback interface alone and goes with the process, so that nothing they send leaves it and
// no two runs meet. Needs no root: without it, a user namespace serves.
//
// The program executes itself anew inside, by the system's own tools, because a process that has
// threads, as one under a sanitizer does before main, cannot enter a user namespace.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

constexpr char const* K_INSIDE = "MIREL_TEST_PRIVATE_NETWORK";
constexpr char const* K_SET_UP_AND_RUN =
    "ip link set lo up && ip link set lo multicast on && ip route add 224.0.0.0/4 dev lo && "
    "exec \"$0\" \"$@\"";

/// Believes what it sees: with any interface but the loopback this is no network of our own.
bool is_network_private() {
    struct if_nameindex* const names = ::if_nameindex();
    bool loopback_alone = names != nullptr;
    for (auto const* entry = names; entry != nullptr && entry->if_name != nullptr; ++entry) {
        loopback_alone = loopback_alone && std::string_view(entry->if_name) == "lo";
    }
    if (names != nullptr) {
        ::if_freenameindex(names);
    }
    return loopback_alone;
}

[[noreturn]] void run_inside(char** argv) {
    std::string const self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<char const*> command{"unshare", "--net"};
    if (::geteuid() != 0) {
        command.insert(command.end(), {"--user", "--map-root-user"});
    }
    command.insert(command.end(), {"sh", "-c", K_SET_UP_AND_RUN, self.c_str()});
    for (char** argument = argv + 1; *argument != nullptr; ++argument) {
        command.push_back(*argument);
    }
    command.push_back(nullptr);
    ::setenv(K_INSIDE, "1", 1);
    ::execvp(command[0], const_cast<char* const*>(command.data()));
    std::perror("unshare");
    std::exit(1);
}

} // namespace

int main(int argc, char** argv) {
    if (std::getenv(K_INSIDE) == nullptr) {
        run_inside(argv);
    }
    if (!is_network_private()) {
        std::fprintf(stderr, "%s is set, but this is no private network\n", K_INSIDE);
        return 1;
    }
    ::unsetenv(K_INSIDE);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
