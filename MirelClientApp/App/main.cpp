#include "MirelClientApp/App/config_fields.hpp"
#include "MirelClientApp/MirelClientApp.hpp"
#include "app/AppConfig.hpp"
#include "app/AppContext.hpp"
#include "app/instance_lock.hpp"
#include "app/utilities/file_io.hpp"

#include <csignal>
#include <cstdio>
#include <exception>

namespace {

constexpr int K_START_FAILURE = 1;
constexpr int K_ALREADY_RUNNING = 255;

} // namespace

int main(int argc, char** argv) {
    tessaron::take_charge_of_inherited_descriptors();
    // A reader that goes away is an error of the write, not the end of the daemon.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        // Built in this order and destroyed in reverse at exit: everything below uses what stands
        // above it.
        static tessaron::config::AppConfig<mirelclient::config::K_ALL_FIELDS> config;
        static tessaron::AppContext context(config.store(), argc, argv);
        mirelclient::MirelClientApp::mkdir_recursive(context.app_dir());
        return mirelclient::MirelClientApp::instance(context).run(argc, argv);
    } catch (tessaron::AlreadyRunningError const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return K_ALREADY_RUNNING;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "Failed to start %s: %s\n",
                     mirelclient::config::K_APP_NAME.default_value, error.what());
        return K_START_FAILURE;
    }
}
