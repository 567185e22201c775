#pragma once

#include "logger/ILogger.hpp"

#include <cstddef>

/// Locks that are never given back, for crashes at the worst of moments. The allocator that obeys
/// the sizes below is that of the crash guard, with which the program has to be preloaded.
namespace held_locks {

/// An allocation of this size takes the allocator's lock and never returns, nor does any other
/// allocation after it.
inline constexpr std::size_t K_HOLD_ALLOCATOR_SIZE = 0x7ab1'e000'0001;
/// An allocation of this size fails, and the calling thread's next one of `K_LARGE_SIZE` or more
/// never returns.
inline constexpr std::size_t K_HANG_AT_LARGE_SIZE = 0x7ab1'e000'0002;
inline constexpr std::size_t K_LARGE_SIZE = std::size_t{1} << 20;

/// Starts a thread that hangs in the allocator ("alloc-holder").
void hold_allocator();

/// Starts a thread that hangs in it while it puts a line into the log's queue ("queue-holder").
void hold_log_queue(tessaron::ILogger& log);

/// Logs on a thread of its own ("side-logger").
void log_aside(tessaron::ILogger& log);

} // namespace held_locks
