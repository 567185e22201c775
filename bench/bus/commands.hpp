#pragma once

#include "bench/bus/Arrivals.hpp"
#include "bench/bus/message.hpp"

#include <functional>
#include <map>
#include <string>

/// The two processes of each peer, told on standard input what to do, a line each; what comes of it
/// is a line on standard output. Both end with their input.
namespace bench::bus {

/// What the near end of a peer can do; empty for what it has no counterpart of.
struct NearEnd {
    std::function<void(Bytes const&)> send;
    /// Sends a request and waits for its reply. False if none came.
    std::function<bool(Bytes const&)> ask;
};

///     send COUNT SIZE PAUSE ROUND   messages, one every PAUSE microseconds, 0 for back to back
///     ask COUNT SIZE                round trips, one after the other
int obey_near(NearEnd const& end);

///     begin ROUND COUNT
///     report
int obey_far(Arrivals& arrivals);

/// By their names; each is given the program's second argument, which may be missing.
using Ends = std::map<std::string, std::function<int(std::string const&)>>;
/// Runs the end that the first argument names.
int run_end(int argc, char** argv, Ends const& ends);

} // namespace bench::bus
