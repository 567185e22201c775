#include "MirelClientApp/App/config_fields.hpp"

#include "MirelClientApp/platform_arch.hpp"
#include "app/AppConfig.hpp"

#include <gtest/gtest.h>
#include <string_view>

namespace mirelclient {
namespace {

TEST(ConfigFields, TheFileStandsBelowTheStockFolders) {
    EXPECT_EQ(tessaron::config::AppConfig<config::K_ALL_FIELDS>::default_path(),
              "/usr/local/daemon/mirelclient/mirelclient/config.json");
}

TEST(ConfigFields, TheTableHasEighteenFieldsWithTheirStockDefaults) {
    static_assert(std::tuple_size_v<decltype(config::K_ALL_FIELDS)> == 18);
    tessaron::config::Config const table(config::K_ALL_FIELDS);
    EXPECT_EQ(table.get<std::string>("app_name"), "mirelclient");
    EXPECT_EQ(table.get<std::string>("app_dir"), "/usr/local/daemon/mirelclient");
    EXPECT_EQ(table.get<std::string>("bus_multicast_group"), "239.255.19.35");
    EXPECT_EQ(table.get<long long>("bus_multicast_port"), 47765);
    EXPECT_EQ(table.get<long long>("shared_bus_address"), 200);
    EXPECT_EQ(table.get<std::string>("log_dir"), "/mnt/nand_disk_ext/mirelclient/");
    EXPECT_EQ(table.get<long long>("log_min_level"), 1);
    EXPECT_TRUE(table.get<std::string>("registry_url").starts_with("https://"));
    EXPECT_EQ(table.get<std::string>("web_addr"), "0.0.0.0");
    EXPECT_EQ(table.get<long long>("web_port"), 7080);
    EXPECT_EQ(table.get<std::string>("self_update_package_name"), "mirelclient");
    EXPECT_EQ(table.get<std::string>("client_name"), "mirelclient");
    EXPECT_EQ(table.get<long long>("heartbeat_interval_seconds"), 30);
    EXPECT_EQ(table.get<long long>("vnc_local_port"), 5900);
    for (char const* const name :
         {"bootstrap_package_list_path", "advertise_addr", "tunnel_addr"}) {
        EXPECT_EQ(table.get<std::string>(name), "") << name;
    }
}

TEST(PlatformArch, IsTheProcessorAndTheSystem) {
    std::string const arch = detect_platform_arch();
    EXPECT_TRUE(arch == "x86_64-linux" || arch == "arm64-linux" || arch == "arm64-darwin") << arch;
}

} // namespace
} // namespace mirelclient
