#include "app/utilities/StopEvent.hpp"

#include <cstdint>
#include <sys/eventfd.h>
#include <tuple>
#include <unistd.h>

namespace tessaron {

StopEvent::StopEvent(std::stop_token const& stop)
    : event_(stop.stop_possible() ? eventfd(0, EFD_CLOEXEC) : -1),
      usable_(!stop.stop_possible() || event_.is_open()), on_stop_(stop, Raise{event_.get()}) {
}

void StopEvent::Raise::operator()() const noexcept {
    std::uint64_t const one = 1;
    std::ignore = write(event, &one, sizeof one); // a fresh counter takes it at once
}

} // namespace tessaron
