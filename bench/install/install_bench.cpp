// Installs one artifact into a fresh store as the daemon does, and prints the seconds it took.
#include "package/PackageManagerService.hpp"

#include <chrono>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ARTIFACT STORE_ROOT\n", argv[0]);
        return 2;
    }
    tessaron::PackageManagerService service(argv[2]);
    auto const begin = std::chrono::steady_clock::now();
    auto const reply = service.install({.name = "bench",
                                        .version = "1",
                                        .arch = "",
                                        .artifact_path = argv[1],
                                        .start_after_install = false});
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - begin;
    if (!reply.ok) {
        std::fprintf(stderr, "%s\n", reply.error.c_str());
        return 1;
    }
    std::printf("%.6f\n", taken.count());
    return 0;
}
