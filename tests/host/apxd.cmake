# The authentication proxy's server, over accounts that the tests script, and the installed program.
find_package(nlohmann_json REQUIRED)

add_library(tesauth_apxd_test STATIC
  ${CMAKE_CURRENT_LIST_DIR}/apxd_client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/apxd_fixture.cpp)
target_include_directories(tesauth_apxd_test PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tesauth_apxd_test PUBLIC tesauth_proxy_server GTest::gmock)

tesauth_host_test(apxd_input_test
  SOURCES apxd_host_name_test.cpp apxd_request_body_test.cpp apxd_request_reader_test.cpp
  LIBRARIES tesauth_proxy_input)
tesauth_host_test(apxd_rules_test
  SOURCES apxd_network_test.cpp apxd_limits_test.cpp apxd_secret_text_test.cpp
          apxd_work_queue_test.cpp
  LIBRARIES tesauth_apxd_test tesauth_freed_memory)
tesauth_host_test(apxd_configuration_test
  SOURCES apxd_configuration_test.cpp
  LIBRARIES tesauth_apxd_test)
tesauth_host_test(apxd_server_test
  SOURCES apxd_server_test.cpp
  LIBRARIES tesauth_apxd_test nlohmann_json::nlohmann_json
  LABELS stress)
tesauth_host_test(apxd_service_test
  SOURCES apxd_service_test.cpp
  LIBRARIES tesauth_apxd_test tesauth_freed_memory nlohmann_json::nlohmann_json)
tesauth_host_test(apxd_serving_test
  SOURCES apxd_serving_test.cpp
  LIBRARIES tesauth_apxd_test)
tesauth_host_test(apxd_attack_test
  SOURCES apxd_attack_test.cpp
  LIBRARIES tesauth_apxd_test
  LABELS slow TIMEOUT 240)
tesauth_host_test(apxd_flood_test
  SOURCES apxd_flood_test.cpp apxd_request_flood_test.cpp
  LIBRARIES tesauth_apxd_test
  LABELS slow TIMEOUT 120)
tesauth_host_test(apxd_check_test
  SOURCES apxd_check_test.cpp apxd_program.cpp
  LIBRARIES tesauth_apxd_test)
tesauth_host_test(apxd_program_test
  SOURCES apxd_program_test.cpp apxd_program.cpp
  LIBRARIES tesauth_apxd_test)

# Without systemd-analyze it counts as skipped, for all to see.
tesauth_host_script(apxd_units_test SCRIPT apxd_units_test.sh)
set_tests_properties(apxd_units_test PROPERTIES SKIP_RETURN_CODE 77)

# What the fuzzer is given, without a fuzzer.
tesauth_host_test(apxd_corpus_test
  SOURCES ${PROJECT_SOURCE_DIR}/tests/fuzz/apxd_fuzz.cpp
          ${PROJECT_SOURCE_DIR}/tests/fuzz/replay.cpp
  LIBRARIES tesauth_proxy_server nlohmann_json::nlohmann_json
  ARGUMENTS ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/apxd)
