#pragma once

#include <string>
#include <string_view>

/// Ways of going wrong for real, for the tests of what follows. The functions that fail are
/// exported, so that a crash record can name them.
namespace faults {

/// `how`: segv, abort, fpe, ill, bus, overflow (of the stack), or "raise N". Returns for anything
/// else. Allocates nothing.
void crash(std::string const& how);

/// `what`: int, or anything else for an exception of the standard library.
[[noreturn]] void throw_something(std::string const& what);

/// Crashes on several threads at the same moment. Does not return.
void crash_together(std::string const& how);

/// Blocks every signal but those of `crash` in the calling thread.
void block_other_signals();

/// Calls something that is not async-signal-safe: malloc, free, pthread_mutex_lock, printf, fopen,
/// setenv, dladdr or dl_iterate_phdr.
void call_unsafe(std::string_view name);

// The functions that `crash` fails in, by the name of what they raise.

void write_to_nowhere();             ///< segv, with the address 8
void give_up();                      ///< abort
int divide_by_zero();                ///< fpe
void run_no_instruction();           ///< ill
void touch_behind_the_end_of_file(); ///< bus
/// overflow: recurses for as long as it is told to, which is longer than any stack lasts.
int use_up_the_stack(int depth, int volatile* limit);

} // namespace faults
