# The platform libraries, each on a private host whose files and network it may change.
find_package(PkgConfig REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

tesauth_host_test(platform_config_store_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform_config_store_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_config_store_faults_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_support.cpp
  LIBRARIES orvcfg SQLite::SQLite3)
tesauth_host_test(platform_host_options_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform_host_options_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_ipv4_address_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_support.cpp
  LIBRARIES hykctlcore orvcfg)
tesauth_host_test(platform_network_files_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform_hosts_file_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_dns_config_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_edit_lock_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_support.cpp
  LIBRARIES hykctl hykctlcore)
tesauth_host_test(platform_network_links_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform_management_interface_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_resolver_service_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/platform_support.cpp
  LIBRARIES hykctl hykctlcore PkgConfig::LIBSYSTEMD)
