#include "tests/programs/faults.hpp"

#include "libraries/threads/start_thread.hpp"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <limits>
#include <link.h>
#include <pthread.h>
#include <stdexcept>
#include <sys/mman.h>
#include <thread>

#if defined(__clang__)
#define FAULT [[gnu::noinline]] __attribute__((no_sanitize("undefined", "address")))
#else
#define FAULT [[gnu::noinline]]
#endif

namespace faults {

namespace {

void* volatile s_memory = std::malloc(1);

} // namespace

FAULT void write_to_nowhere() {
    int volatile* volatile nowhere = reinterpret_cast<int volatile*>(8);
    *nowhere = 1;
}

FAULT void give_up() {
    std::abort();
}

FAULT int divide_by_zero() {
    int volatile number = 7;
    int volatile zero = 0;
    return number / zero;
}

FAULT void run_no_instruction() {
#if defined(__x86_64__) || defined(__i386__)
    __asm__ volatile("ud2");
#else
    std::raise(SIGILL);
#endif
}

FAULT void touch_behind_the_end_of_file() {
    constexpr std::size_t K_PAGE = 4096;
    int const empty = ::memfd_create("empty", MFD_CLOEXEC);
    void* const page = ::mmap(nullptr, K_PAGE, PROT_READ | PROT_WRITE, MAP_SHARED, empty, 0);
    *static_cast<char volatile*>(page) = 1;
}

FAULT int use_up_the_stack(int depth, int volatile* limit) {
    char volatile frame[1024];
    frame[depth % 1024] = static_cast<char>(depth);
    if (depth == *limit) {
        return 0;
    }
    return use_up_the_stack(depth + 1, limit) + frame[(depth + 1) % 1024];
}

void crash(std::string const& how) {
    if (how == "segv") {
        write_to_nowhere();
    } else if (how == "abort") {
        give_up();
    } else if (how == "fpe") {
        std::exit(divide_by_zero());
    } else if (how == "ill") {
        run_no_instruction();
    } else if (how == "bus") {
        touch_behind_the_end_of_file();
    } else if (how == "overflow") {
        int volatile limit = std::numeric_limits<int>::max();
        std::exit(use_up_the_stack(0, &limit));
    } else if (how.starts_with("raise ")) {
        std::raise(std::atoi(how.c_str() + 6));
    }
}

[[gnu::noinline]] void throw_something(std::string const& what) {
    if (what == "int") {
        throw 42;
    }
    throw std::runtime_error("told to throw");
}

void block_other_signals() {
    sigset_t signals;
    sigfillset(&signals);
    for (int const signal_number : {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS}) {
        sigdelset(&signals, signal_number);
    }
    ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

void call_unsafe(std::string_view name) {
    static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
    Dl_info info{};
    if (name == "malloc") {
        s_memory = std::malloc(1);
    } else if (name == "free") {
        std::free(s_memory);
    } else if (name == "pthread_mutex_lock") {
        ::pthread_mutex_lock(&s_mutex);
    } else if (name == "printf") {
        std::printf("%d", 1);
    } else if (name == "fopen") {
        s_memory = std::fopen("/dev/null", "re");
    } else if (name == "setenv") {
        ::setenv("NAME", "value", 1);
    } else if (name == "dladdr") {
        ::dladdr(s_memory, &info);
    } else if (name == "dl_iterate_phdr") {
        ::dl_iterate_phdr([](dl_phdr_info*, std::size_t, void*) { return 0; }, nullptr);
    }
}

void crash_together(std::string const& how) {
    std::atomic<int> missing{4};
    std::array<std::thread, 4> threads;
    for (std::thread& thread : threads) {
        thread = tessaron::start_thread("crasher", [&how, &missing] {
            --missing;
            while (missing != 0) {
                std::this_thread::yield();
            }
            crash(how);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace faults
