#include "app/utilities/StopEvent.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <thread>

namespace tessaron {
namespace {

bool is_raised(StopEvent const& event) {
    pollfd waited{event.descriptor(), POLLIN, 0};
    return poll(&waited, 1, 0) == 1;
}

TEST(StopEvent, IsRaisedByTheRequestAndStaysSo) {
    std::stop_source source;
    StopEvent const event(source.get_token());
    EXPECT_TRUE(event.is_usable());
    EXPECT_FALSE(is_raised(event));
    source.request_stop();
    EXPECT_TRUE(is_raised(event));
    EXPECT_TRUE(is_raised(event));
}

TEST(StopEvent, IsRaisedFromTheBeginningAfterTheRequest) {
    std::stop_source source;
    source.request_stop();
    EXPECT_TRUE(is_raised(StopEvent(source.get_token())));
}

TEST(StopEvent, WakesAPollThatIsUnderWay) {
    std::stop_source source;
    StopEvent const event(source.get_token());
    std::thread waiter([&event] {
        pollfd waited{event.descriptor(), POLLIN, 0};
        EXPECT_EQ(poll(&waited, 1, 20'000), 1);
    });
    source.request_stop();
    waiter.join();
}

TEST(StopEvent, NeedsNoDescriptorWhereNoRequestCanCome) {
    StopEvent const event{std::stop_token{}};
    EXPECT_TRUE(event.is_usable());
    EXPECT_EQ(event.descriptor(), -1);
}

TEST(StopEvent, IsNotUsableWithoutADescriptor) {
    std::stop_source source;
    rlimit former{};
    getrlimit(RLIMIT_NOFILE, &former);
    rlimit const none{0, former.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    StopEvent const event(source.get_token());
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_FALSE(event.is_usable());
    source.request_stop(); // harmless
}

} // namespace
} // namespace tessaron
