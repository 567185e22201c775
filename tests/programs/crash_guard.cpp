// Preloaded into a program, watches over what its crash handlers call. They run wrapped, and a
// thread that calls out of one of them into anything listed below ends the process at once with
// the code 77 and "crash_guard: NAME called in the crash path" on the standard error stream.
//
// It is the program's allocator, too, so that a test can take the allocator's lock for ever (see
// tests/programs/held_locks.hpp).

#include "tests/programs/held_locks.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

// The allocator behind these names; they cannot be looked up at run time, since that allocates.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {

constexpr int K_CONVICTED = 77;

// The memory of such a thread-local variable is there before its first use: no allocation.
#define EARLY_THREAD_LOCAL static thread_local __attribute__((tls_model("initial-exec")))

/// How many crash handlers the thread is in.
EARLY_THREAD_LOCAL int s_handlers = 0;
EARLY_THREAD_LOCAL bool s_hang_at_large = false;

std::atomic<bool> s_allocator_held{false};

void check(char const* name) {
    if (s_handlers == 0) {
        return;
    }
    std::array<char, 128> text{"crash_guard: "};
    ::strcat(text.data(), name);
    ::strcat(text.data(), " called in the crash path\n");
    [[maybe_unused]] auto const written =
        ::write(STDERR_FILENO, text.data(), ::strlen(text.data()));
    ::_exit(K_CONVICTED);
}

[[noreturn]] void hang() {
    for (;;) {
        ::pause();
    }
}

void check_allocation(char const* name, std::size_t size) {
    check(name);
    if (size == held_locks::K_HOLD_ALLOCATOR_SIZE) {
        s_allocator_held = true;
    }
    if (s_allocator_held || (s_hang_at_large && size >= held_locks::K_LARGE_SIZE)) {
        hang();
    }
}

/// The function of that name behind this library. Some have an older version that must not be
/// taken for it.
template <typename Function>
Function next(char const* name) {
    void* function = ::dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2");
    if (function == nullptr) {
        function = ::dlsym(RTLD_NEXT, name);
    }
    return reinterpret_cast<Function>(function);
}

// Handlers run wrapped.

using Handler = void (*)(int, siginfo_t*, void*);
constexpr std::array K_WATCHED{SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS, SIGALRM};

std::array<std::atomic<Handler>, NSIG> s_real_handlers{};

void run_watched(int signal_number, siginfo_t* info, void* context) {
    ++s_handlers;
    s_real_handlers[static_cast<std::size_t>(signal_number)].load()(signal_number, info, context);
    --s_handlers;
}

bool is_watched(int signal_number) {
    for (int const watched : K_WATCHED) {
        if (watched == signal_number) {
            return true;
        }
    }
    return false;
}

bool is_function(struct sigaction const& action) {
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

int change_action(int signal_number, struct sigaction const* action, struct sigaction* former) {
    using Function = int (*)(int, struct sigaction const*, struct sigaction*);
    static auto const s_next = next<Function>("sigaction");
    if (!is_watched(signal_number)) {
        return s_next(signal_number, action, former);
    }
    auto& handler = s_real_handlers[static_cast<std::size_t>(signal_number)];
    Handler const former_handler = handler;
    struct sigaction wrapped {};
    if (action != nullptr) {
        wrapped = *action;
        if (is_function(wrapped)) {
            handler = wrapped.sa_sigaction;
            wrapped.sa_sigaction = run_watched;
        }
    }
    int const result = s_next(signal_number, action != nullptr ? &wrapped : nullptr, former);
    if (former != nullptr && former->sa_sigaction == run_watched) {
        former->sa_sigaction = former_handler;
    }
    return result;
}

} // namespace

extern "C" {

int sigaction(int signal_number, struct sigaction const* action,
              struct sigaction* former) noexcept {
    return change_action(signal_number, action, former);
}

sighandler_t signal(int signal_number, sighandler_t handler) noexcept {
    struct sigaction action {};
    struct sigaction former {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    return change_action(signal_number, &action, &former) == 0 ? former.sa_handler : SIG_ERR;
}

// The allocator.

void* malloc(std::size_t size) noexcept {
    check_allocation("malloc", size);
    if (size == held_locks::K_HANG_AT_LARGE_SIZE) {
        s_hang_at_large = true;
        return nullptr;
    }
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    check_allocation("calloc", count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
    check_allocation("realloc", size);
    return __libc_realloc(memory, size);
}

void free(void* memory) noexcept {
    check_allocation("free", 0);
    __libc_free(memory);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
    check_allocation("posix_memalign", size);
    *memory = __libc_memalign(alignment, size);
    return *memory != nullptr ? 0 : ENOMEM;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    check_allocation("aligned_alloc", size);
    return __libc_memalign(alignment, size);
}

// Everything else: told, and passed on.

#define WATCH(result, name, parameters, arguments)                                                 \
    result name parameters {                                                                       \
        check(#name);                                                                              \
        static auto const s_next = next<result(*) parameters>(#name);                              \
        return s_next arguments;                                                                   \
    }

WATCH(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
WATCH(int, pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex))
WATCH(int, pthread_mutex_timedlock, (pthread_mutex_t * mutex, timespec const* end), (mutex, end))
WATCH(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
WATCH(int, pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
WATCH(int, pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
WATCH(int, pthread_rwlock_tryrdlock, (pthread_rwlock_t * lock), (lock))
WATCH(int, pthread_rwlock_trywrlock, (pthread_rwlock_t * lock), (lock))
WATCH(int, pthread_rwlock_unlock, (pthread_rwlock_t * lock), (lock))
WATCH(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
      (condition, mutex))
WATCH(int, pthread_cond_timedwait,
      (pthread_cond_t * condition, pthread_mutex_t* mutex, timespec const* end),
      (condition, mutex, end))
WATCH(int, pthread_cond_clockwait,
      (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, timespec const* end),
      (condition, mutex, clock, end))
WATCH(int, pthread_cond_signal, (pthread_cond_t * condition), (condition))
WATCH(int, pthread_cond_broadcast, (pthread_cond_t * condition), (condition))

WATCH(FILE*, fopen, (char const* path, char const* mode), (path, mode))
WATCH(FILE*, fdopen, (int fd, char const* mode), (fd, mode))
WATCH(int, fclose, (FILE * file), (file))
WATCH(int, fflush, (FILE * file), (file))
WATCH(std::size_t, fwrite, (void const* data, std::size_t size, std::size_t count, FILE* file),
      (data, size, count, file))
WATCH(int, fputs, (char const* text, FILE* file), (text, file))
WATCH(int, fputc, (int byte, FILE* file), (byte, file))
WATCH(int, putc, (int byte, FILE* file), (byte, file))
WATCH(int, putchar, (int byte), (byte))
WATCH(int, puts, (char const* text), (text))
WATCH(void, perror, (char const* text), (text))
WATCH(int, vprintf, (char const* format, va_list values), (format, values))
WATCH(int, vfprintf, (FILE * file, char const* format, va_list values), (file, format, values))
WATCH(int, vdprintf, (int fd, char const* format, va_list values), (fd, format, values))
WATCH(int, vsprintf, (char* text, char const* format, va_list values), (text, format, values))
WATCH(int, vsnprintf, (char* text, std::size_t size, char const* format, va_list values),
      (text, size, format, values))
WATCH(void, vsyslog, (int priority, char const* format, va_list values), (priority, format, values))

WATCH(char*, getenv, (char const* name), (name))
WATCH(int, setenv, (char const* name, char const* value, int overwrite), (name, value, overwrite))
WATCH(int, unsetenv, (char const* name), (name))
WATCH(int, putenv, (char* assignment), (assignment))
WATCH(char*, strerror, (int error), (error))
WATCH(char*, strsignal, (int signal_number), (signal_number))

WATCH(void*, dlopen, (char const* path, int mode), (path, mode))
WATCH(int, dladdr, (void const* address, Dl_info* info), (address, info))
WATCH(int, dl_iterate_phdr, (int (*callback)(dl_phdr_info*, std::size_t, void*), void* data),
      (callback, data))
WATCH(char**, backtrace_symbols, (void* const* frames, int count), (frames, count))
WATCH(void, backtrace_symbols_fd, (void* const* frames, int count, int fd), (frames, count, fd))
WATCH(void, __cxa_throw, (void* object, void* type, void (*destroy)(void*)),
      (object, type, destroy))

#define WATCH_FORMAT(name, v_name, parameters, ...)                                                \
    int name parameters {                                                                          \
        check(#name);                                                                              \
        va_list values;                                                                            \
        va_start(values, format);                                                                  \
        int const result = v_name(__VA_ARGS__, values);                                            \
        va_end(values);                                                                            \
        return result;                                                                             \
    }

WATCH_FORMAT(printf, vprintf, (char const* format, ...), format)
WATCH_FORMAT(fprintf, vfprintf, (FILE * file, char const* format, ...), file, format)
WATCH_FORMAT(dprintf, vdprintf, (int fd, char const* format, ...), fd, format)
WATCH_FORMAT(sprintf, vsprintf, (char* text, char const* format, ...), text, format)
WATCH_FORMAT(snprintf, vsnprintf, (char* text, std::size_t size, char const* format, ...), text,
             size, format)

void syslog(int priority, char const* format, ...) {
    check("syslog");
    va_list values;
    va_start(values, format);
    vsyslog(priority, format, values);
    va_end(values);
}

} // extern "C"
