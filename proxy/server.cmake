# The proxy's server: its door, who may ask, its configuration; and the program around it.
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(TOMLPLUSPLUS REQUIRED IMPORTED_TARGET tomlplusplus)

# What reads what a client sent; holds nothing that a fuzzer would have to wait for.
add_library(tesauth_proxy_input STATIC
  host_name.cpp
  request_body.cpp
  request_reader.cpp)
target_include_directories(tesauth_proxy_input PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tesauth_proxy_input PUBLIC tesauth_directory
                                          PRIVATE nlohmann_json::nlohmann_json)

add_library(tesauth_proxy_server STATIC
  certificate.cpp
  certificate_making.cpp
  check.cpp
  configuration.cpp
  connection.cpp
  decision_log.cpp
  front_door.cpp
  host_check.cpp
  http_service.cpp
  keytab_check.cpp
  listener.cpp
  network.cpp
  openssl_owner.cpp
  refusal_answer.cpp
  request_limits.cpp
  server.cpp
  serving.cpp
  start.cpp
  tls.cpp
  toml_reader.cpp
  work_queue.cpp)
target_link_libraries(tesauth_proxy_server
  PUBLIC tesauth_proxy_input OpenSSL::SSL OpenSSL::Crypto PkgConfig::HTTPLIB
         PkgConfig::TOMLPLUSPLUS Threads::Threads
  PRIVATE nlohmann_json::nlohmann_json)

add_executable(tesauth-apxd main.cpp)
target_compile_definitions(tesauth-apxd PRIVATE TESAUTH_APXD_VERSION="${PROJECT_VERSION}")
target_link_libraries(tesauth-apxd PRIVATE tesauth_proxy_server tesauth_proxy_accounts CLI11::CLI11
                                           PkgConfig::LIBSYSTEMD)

install(TARGETS tesauth-apxd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/docs/tesauth-apxd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

# The unit is looked for in lib, wherever the libraries are; nothing enables it.
configure_file(${PROJECT_SOURCE_DIR}/packaging/systemd/tesauth-apxd.service.in tesauth-apxd.service
               @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tesauth-apxd.service
        DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/sysusers.d/tesauth-apxd.conf
        DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/sysusers.d)
