#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>

namespace mirelserver::test {

/// Runs the context until the condition holds, half a minute at most; whether it does.
template <typename Condition>
bool run_until(boost::asio::io_context& context, Condition condition) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds{30};
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        context.restart();
        context.run_one_for(std::chrono::seconds{1});
    }
    return condition();
}

} // namespace mirelserver::test
