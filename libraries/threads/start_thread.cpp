#include "libraries/threads/start_thread.hpp"

#include <pthread.h>
#include <utility>

namespace tessaron {

namespace {

/// The alternate stack lies in the first frame of the thread's own: the far end from where an
/// overflow happens. It costs no allocation, and no memory before a handler runs on it.
[[gnu::noinline]] void run_with_signal_stack(std::function<void()> const& body) {
    alignas(16) std::byte memory[K_SIGNAL_STACK_SIZE];
    AlternateSignalStack const stack(memory, sizeof memory);
    body();
}

} // namespace

AlternateSignalStack::AlternateSignalStack(std::byte* memory, std::size_t size) noexcept {
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = size;
    installed_ = ::sigaltstack(&stack, &former_) == 0;
}

AlternateSignalStack::~AlternateSignalStack() {
    if (installed_) {
        ::sigaltstack(&former_, nullptr);
    }
}

std::thread start_thread(char const* name, std::function<void()> body) {
    return std::thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        run_with_signal_stack(body);
    });
}

} // namespace tessaron
