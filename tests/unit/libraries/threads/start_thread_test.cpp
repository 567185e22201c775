#include "libraries/threads/start_thread.hpp"

#include <array>
#include <csignal>
#include <cstdint>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>

namespace tessaron {
namespace {

std::string own_name() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

bool has_signal_stack() {
    stack_t stack{};
    ::sigaltstack(nullptr, &stack);
    return (stack.ss_flags & SS_DISABLE) == 0 && stack.ss_size >= K_SIGNAL_STACK_SIZE;
}

TEST(StartThread, TheThreadHasItsNameAndASignalStack) {
    std::string name;
    bool signal_stack = false;
    start_thread("fifteen-letters", [&] {
        name = own_name();
        signal_stack = has_signal_stack();
    }).join();
    EXPECT_EQ(name, "fifteen-letters");
    EXPECT_TRUE(signal_stack);
}

/// Where a signal handler of the test ran.
std::uintptr_t volatile s_handler_frame = 0;

TEST(StartThread, AHandlerThatAsksForItRunsOnTheSignalStack) {
    struct sigaction action {};
    action.sa_handler = [](int) {
        // Not a variable's address: a sanitizer may keep variables elsewhere.
        s_handler_frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    };
    action.sa_flags = SA_ONSTACK;
    struct sigaction former {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &former), 0);
    bool inside = false;
    start_thread("signalled", [&] {
        stack_t stack{};
        ::sigaltstack(nullptr, &stack);
        ::pthread_kill(pthread_self(), SIGUSR1);
        auto const begin = reinterpret_cast<std::uintptr_t>(stack.ss_sp);
        inside = s_handler_frame >= begin && s_handler_frame < begin + stack.ss_size;
    }).join();
    ::sigaction(SIGUSR1, &former, nullptr);
    EXPECT_TRUE(inside);
}

TEST(AlternateSignalStack, TheFormerOneComesBack) {
    stack_t before{};
    ::sigaltstack(nullptr, &before);
    {
        std::array<std::byte, K_SIGNAL_STACK_SIZE> memory;
        AlternateSignalStack const stack(memory.data(), memory.size());
        EXPECT_TRUE(has_signal_stack());
    }
    stack_t after{};
    ::sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, before.ss_sp);
    EXPECT_EQ(after.ss_flags, before.ss_flags);
}

} // namespace
} // namespace tessaron
