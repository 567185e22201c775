#include "package/lifecycle_script.hpp"

#include "app/utilities/shell_command.hpp"
#include "package/package_commands.hpp"

namespace tessaron {

int run_lifecycle_script(LifecycleScript const& script, std::stop_token const& stop) {
    return run_shell(package_commands::lifecycle(script), stop);
}

} // namespace tessaron
