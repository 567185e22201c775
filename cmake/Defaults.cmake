# Compiled-in defaults of the configuration. The stock values are what is shipped; a packager
# changes them with -D, the tests never need to.
set(MIREL_APP_DIR "/usr/local/daemon/mirelclient"
    CACHE STRING "Default of app_dir: base folder of the daemon's operational data")
set(MIREL_LOG_DIR "/mnt/nand_disk_ext/mirelclient/"
    CACHE STRING "Default of log_dir: folder of the diagnostic log")
set(MIREL_REGISTRY_URL "https://registry.mirel.example"
    CACHE STRING "Default of registry_url: base URL of the registry server")
set(MIREL_BUS_MULTICAST_GROUP "239.255.19.35"
    CACHE STRING "Default of bus_multicast_group")
set(MIREL_BUS_MULTICAST_PORT "47765" CACHE STRING "Default of bus_multicast_port")
