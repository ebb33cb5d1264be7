# Everything here is a Debian 12 package; packaging/debian-packages.txt lists them.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Boost 1.74 REQUIRED)
find_package(Protobuf REQUIRED)
find_package(fmt REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(TOMLPP REQUIRED IMPORTED_TARGET tomlplusplus)
pkg_check_modules(LXC REQUIRED IMPORTED_TARGET lxc)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

# net-snmp: the agent, helper and core libraries of a sub-agent.
find_path(NETSNMP_INCLUDE_DIR net-snmp/net-snmp-config.h REQUIRED)
find_library(NETSNMP_LIBRARY netsnmp REQUIRED)
find_library(NETSNMP_AGENT_LIBRARY netsnmpagent REQUIRED)
find_library(NETSNMP_MIBS_LIBRARY netsnmpmibs REQUIRED)
add_library(kx_netsnmp INTERFACE)
target_include_directories(kx_netsnmp SYSTEM INTERFACE ${NETSNMP_INCLUDE_DIR})
target_link_libraries(kx_netsnmp INTERFACE ${NETSNMP_MIBS_LIBRARY} ${NETSNMP_AGENT_LIBRARY} ${NETSNMP_LIBRARY})
