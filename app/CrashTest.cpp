#include "app/CrashTest.hpp"

#include "libraries/threads/start_thread.hpp"
#include "libraries/vocabulary/Mutex.hpp"

#include <condition_variable>
#include <csignal>

namespace tessaron {

struct CrashTest::Shared {
    Mutex mutex;
    std::condition_variable changed;
    pthread_t target TESSARON_GUARDED_BY(mutex) = ::pthread_self();
    bool over TESSARON_GUARDED_BY(mutex) = false;
};

CrashTest::CrashTest() : shared_(std::make_shared<Shared>()) {
}

CrashTest::~CrashTest() {
    {
        MutexLock lock(shared_->mutex);
        shared_->over = true;
    }
    shared_->changed.notify_all();
}

void CrashTest::set_target(pthread_t thread) noexcept {
    MutexLock lock(shared_->mutex);
    shared_->target = thread;
}

void CrashTest::arm() {
    armed_ = true;
    start_thread("crash-test", [shared = shared_] {
        Shared& state = *shared;
        MutexLock lock(state.mutex);
        if (!state.changed.wait_for(lock.native(), K_DELAY,
                                    [&state]()
                                        TESSARON_REQUIRES(state.mutex) { return state.over; })) {
            ::pthread_kill(state.target, SIGABRT);
        }
    }).detach();
}

} // namespace tessaron
