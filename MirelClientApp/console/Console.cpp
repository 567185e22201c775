#include "MirelClientApp/console/Console.hpp"

#include "MirelClientApp/console/console_ws.hpp"

namespace mirelclient {

void Console::serve_terminal(int fd, HttpRequest const& request) {
    HandlerGate::Pass const living(terminals_);
    handle_console_ws(fd, request, stop_.get_token());
}

ConsoleExecutor::Result Console::exec(std::string const& command, int timeout_seconds) const {
    return ConsoleExecutor(stop_.get_token()).exec(command, timeout_seconds);
}

} // namespace mirelclient
