#include "app/ReassertGuard.hpp"

#include "libraries/threads/start_thread.hpp"

namespace tessaron {

ReassertGuard::ReassertGuard(Function reassert)
    : reassert_(reassert),
      thread_(start_thread("crash-handlers", [this] { reassert_until_ended(); })) {
}

ReassertGuard::~ReassertGuard() {
    {
        MutexLock lock(mutex_);
        ended_ = true;
        ended_changed_.notify_all();
    }
    thread_.join();
}

void ReassertGuard::reassert_until_ended() {
    for (bool ended = false; !ended;) {
        reassert_();
        MutexLock lock(mutex_);
        ended = ended_changed_.wait_for(lock.native(), K_PERIOD,
                                        [this]() TESSARON_REQUIRES(mutex_) { return ended_; });
    }
}

} // namespace tessaron
