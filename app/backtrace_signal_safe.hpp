#pragma once

/// The calling thread's stack as text, also within a signal handler.
namespace tessaron::detail {

/// Loads what the first backtrace of a process would have to load, with all the allocation that
/// goes with it. Call it before the handlers are installed.
void prepare_backtraces();

/// Writes one line per frame, `K_CRASH_BACKTRACE_MAX` at most, "<file>(<function>+0x<offset>)
/// [0x<address>]", the newest first.
/// "<function>" is missing where the file exports no name, and "+0x<offset>" then counts from where
/// the file was loaded, which is what addr2line takes.
///
/// The system's own `backtrace_symbols_fd` takes the dynamic linker's lock, for which a crash while
/// another thread loads a library could wait for ever; this takes none.
///
/// Async-signal-safe.
void write_backtrace_signal_safe(int fd) noexcept;

} // namespace tessaron::detail
