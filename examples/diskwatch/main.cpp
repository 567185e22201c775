// diskwatch: a small managed application. It logs how much space is left on a file system, and
// warns when little is, until it is told to stop. What a daemon of this family needs besides its
// own work (configuration that heals itself, a log that survives its disk, a clean stop) comes
// from the frame: a table of settings, a context, and a shell with `run_impl`.

#include "app/AppConfig.hpp"
#include "app/AppContext.hpp"
#include "app/ConsoleApp.hpp"
#include "app/instance_lock.hpp"
#include "generated/app/bus_fields.hpp"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <sys/statvfs.h>
#include <tuple>

namespace diskwatch {

using TextField = tessaron::config::FieldSpec<char const*>;
using IntField = tessaron::config::FieldSpec<long long>;
using tessaron::LogLevel;

inline constexpr TextField K_APP_NAME{"app_name", "Label of the log and name of its folder",
                                      "diskwatch"};
inline constexpr TextField K_APP_DESCRIPTION{"app_description", "One line for a human",
                                             "Logs the free space of a file system"};
inline constexpr TextField K_APP_DIR{"app_dir", "Folder of this application's own data",
                                     "/usr/local/daemon/diskwatch"};
inline constexpr TextField K_LOG_DIR{"log_dir", "Folder of the log", "/usr/local/daemon/diskwatch"};
inline constexpr IntField K_LOG_MIN_LEVEL{"log_min_level", "0=TRACE, 1=INFO, 2=WARNING, 3=ERROR",
                                          1};
inline constexpr TextField K_WATCHED_PATH{"watched_path", "A path on the file system to watch",
                                          "/"};
inline constexpr IntField K_INTERVAL_SECONDS{"interval_seconds", "Time between two looks", 10};
inline constexpr IntField K_WARN_BELOW_PERCENT{"warn_below_percent",
                                               "Warn when less than this is free", 10};

inline constexpr auto K_ALL_FIELDS =
    std::tie(K_APP_NAME, K_APP_DESCRIPTION, K_APP_DIR, tessaron::K_BUS_MULTICAST_GROUP,
             tessaron::K_BUS_MULTICAST_PORT, tessaron::K_SHARED_BUS_ADDRESS, K_LOG_DIR,
             K_LOG_MIN_LEVEL, K_WATCHED_PATH, K_INTERVAL_SECONDS, K_WARN_BELOW_PERCENT);

class DiskWatch : public tessaron::ConsoleApp<DiskWatch> {
public:
    explicit DiskWatch(tessaron::AppContext& context) : ConsoleApp(context) {}

    void user_signal_handler(int /*signal_number*/) override { request_stop(); }

private:
    int run_impl() override {
        std::chrono::seconds const interval(context().config().as_int(K_INTERVAL_SECONDS));
        do {
            look();
        } while (!wait_until_stopped_for(interval));
        return 0;
    }

    void look() {
        std::string const path = context().config().as_str(K_WATCHED_PATH);
        struct statvfs disk {};
        if (statvfs(path.c_str(), &disk) != 0 || disk.f_blocks == 0) {
            context().log().log(LogLevel::ERROR, "cannot read the free space of '", path, "'");
            return;
        }
        auto const free_percent = static_cast<long long>(disk.f_bavail * 100 / disk.f_blocks);
        bool const low = free_percent < context().config().as_int(K_WARN_BELOW_PERCENT);
        context().log().log(low ? LogLevel::WARNING : LogLevel::INFO, "'", path,
                            "': ", free_percent, "% free, ", disk.f_bavail * disk.f_frsize,
                            " bytes");
    }
};

} // namespace diskwatch

int main(int argc, char** argv) {
    try {
        static tessaron::config::AppConfig<diskwatch::K_ALL_FIELDS> config;
        static tessaron::AppContext context(config.store(), argc, argv);
        return diskwatch::DiskWatch::instance(context).run(argc, argv);
    } catch (tessaron::AlreadyRunningError const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 255;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "diskwatch: %s\n", error.what());
        return 1;
    }
}
