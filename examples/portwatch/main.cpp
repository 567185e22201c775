// portwatch: watches TCP endpoints, whose list stands in a database that an operator can edit.
// Settings, log, sessions, crash records, the place on the bus and the end of an earlier instance
// come from the frame; see README.md.

#include "PortWatch.hpp"
#include "config_fields.hpp"

#include "app/AppConfig.hpp"
#include "app/AppContext.hpp"
#include "app/instance_lock.hpp"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        static tessaron::config::AppConfig<portwatch::K_ALL_FIELDS> config;
        static tessaron::AppContext context(config.store(), argc, argv);
        return portwatch::PortWatch::instance(context).run(argc, argv);
    } catch (tessaron::AlreadyRunningError const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 255;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "portwatch: %s\n", error.what());
        return 1;
    }
}
