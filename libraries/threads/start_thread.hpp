#pragma once

#include <csignal>
#include <cstddef>
#include <functional>
#include <thread>

namespace tessaron {

/// Room for a signal handler to run on when the thread's own stack is used up: without it, a stack
/// overflow ends the process before a crash handler could say a word.
inline constexpr std::size_t K_SIGNAL_STACK_SIZE = std::size_t{64} * 1024;

/// Gives the calling thread an alternate signal stack for as long as the object lives; it must end
/// on the thread that made it.
///
/// Ownership: the memory stays the caller's and must outlive the object.
/// Errors: none; without the stack a handler runs on the thread's own.
class AlternateSignalStack {
public:
    AlternateSignalStack(std::byte* memory, std::size_t size) noexcept;
    ~AlternateSignalStack();
    AlternateSignalStack(AlternateSignalStack const&) = delete;
    AlternateSignalStack& operator=(AlternateSignalStack const&) = delete;

private:
    stack_t former_{};
    bool installed_ = false;
};

/// Starts a thread of that name (15 characters at most: the system takes no more) with an alternate
/// signal stack. Every thread of this code is started here. An exception out of `body` ends the
/// process.
///
/// Errors: `std::system_error` if there is no further thread to be had.
[[nodiscard]] std::thread start_thread(char const* name, std::function<void()> body);

} // namespace tessaron
