#include "MirelClientApp/platform_arch.hpp"

namespace mirelclient {

#if defined(__x86_64__)
#define MIREL_CPU "x86_64"
#elif defined(__aarch64__)
#define MIREL_CPU "arm64"
#else
#error "name this processor as the registry's builds for it do"
#endif

#if defined(__linux__)
#define MIREL_OS "linux"
#elif defined(__APPLE__)
#define MIREL_OS "darwin"
#else
#error "name this operating system as the registry's builds for it do"
#endif

std::string detect_platform_arch() {
    return MIREL_CPU "-" MIREL_OS;
}

} // namespace mirelclient
