# The proxy client plug-in against a scripted proxy server.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS SSL Crypto)
find_package(nlohmann_json REQUIRED)

add_library(tesauth_scripted_proxy_server STATIC
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_proxy_server.cpp)
target_link_libraries(tesauth_scripted_proxy_server PUBLIC tesauth_test_support OpenSSL::SSL
                      OpenSSL::Crypto Threads::Threads)

tesauth_host_test(apxhttps_client_test
  SOURCES apxhttps_answers_test.cpp apxhttps_certificate_test.cpp apxhttps_exchange_test.cpp
          apxhttps_failures_test.cpp apxhttps_server_address_test.cpp
  LIBRARIES apxhttps_client tesauth_scripted_proxy_server
  ENVIRONMENT SSLKEYLOGFILE=/run/tls.keys)
tesauth_host_test(apxhttps_log_test SOURCES apxhttps_log_test.cpp
                  LIBRARIES apxhttps_client tesauth_scripted_proxy_server)

# The installed plug-in, with nothing of it in the test itself.
tesauth_host_test(apxhttps_plugin_test SOURCES apxhttps_plugin_test.cpp
                  LIBRARIES tesauth_scripted_proxy_server ${CMAKE_DL_LIBS})
# The address sanitizer keeps too much memory to search it.
tesauth_host_test(apxhttps_secrets_test SOURCES apxhttps_secrets_test.cpp
                  LIBRARIES tesauth_scripted_proxy_server ${CMAKE_DL_LIBS}
                  LABELS slow)
foreach(name apxhttps_plugin_test apxhttps_secrets_test)
  target_include_directories(${name} PRIVATE
    $<TARGET_PROPERTY:apxhttps_client,INTERFACE_INCLUDE_DIRECTORIES>)
  add_dependencies(${name} apxhttps)
endforeach()
