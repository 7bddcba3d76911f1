# The command, as it is installed, over the scripted directory provider.
find_package(nlohmann_json REQUIRED)

add_library(tesauth_ctl_test_host STATIC
  ${CMAKE_CURRENT_LIST_DIR}/ctl_file_fixture.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ctl_host.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ctl_process.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_host.cpp)
target_compile_definitions(tesauth_ctl_test_host PUBLIC
  SCRIPTED_PROVIDER_FILE="$<TARGET_FILE:scripted_provider>"
  BARE_PROVIDER_FILE="$<TARGET_FILE:scripted_provider_without_maintenance>"
  SCRIPTED_PROXY_FILE="$<TARGET_FILE:scripted_proxy_that_stays>"
  SILENT_PROXY_FILE="$<TARGET_FILE:scripted_proxy>"
  INCOMPLETE_PROXY_FILE="$<TARGET_FILE:scripted_proxy_without_entry_2>")
target_link_libraries(tesauth_ctl_test_host PUBLIC tesauth_test_support GTest::gmock
                      nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})
add_dependencies(tesauth_ctl_test_host scripted_provider scripted_provider_without_maintenance
                 scripted_proxy scripted_proxy_that_stays scripted_proxy_without_entry_2
                 tesauthctl)

foreach(name ctl_usage_test ctl_status_test ctl_directory_test ctl_membership_test
             ctl_password_test ctl_settings_test ctl_lists_test ctl_cause_test ctl_diagnose_test
             ctl_host_checks_test ctl_rotate_key_test ctl_proxy_test ctl_pam_test ctl_nss_test
             ctl_file_change_test)
  tesauth_host_test(${name} SOURCES ${name}.cpp LIBRARIES tesauth_ctl_test_host)
endforeach()
target_link_libraries(ctl_proxy_test PRIVATE tesauth)

# The command's editors by themselves, over more files than it could be run for.
find_path(DTL_INCLUDE_DIR dtl/dtl.hpp REQUIRED)
set(file_editors_of_ctl
    file_backup.cpp file_change.cpp file_lock.cpp file_replacement.cpp file_snapshot.cpp lines.cpp
    nss_file.cpp nss_line.cpp output.cpp pam_file.cpp unified_diff.cpp)
list(TRANSFORM file_editors_of_ctl PREPEND ${PROJECT_SOURCE_DIR}/ctl/)
add_library(tesauth_ctl_file_editors STATIC ${file_editors_of_ctl})
target_include_directories(tesauth_ctl_file_editors PUBLIC ${PROJECT_SOURCE_DIR}/ctl)
target_include_directories(tesauth_ctl_file_editors SYSTEM PRIVATE ${DTL_INCLUDE_DIR})
target_link_libraries(tesauth_ctl_file_editors PUBLIC tesauth nlohmann_json::nlohmann_json)
tesauth_host_test(ctl_file_edit_test
  SOURCES ctl_file_edit_test.cpp LIBRARIES tesauth_ctl_file_editors)

# Two of them at once: the test stops one in the middle.
tesauth_host_test(ctl_file_lock_test
  SOURCES ctl_file_lock_test.cpp LIBRARIES tesauth_ctl_test_host tesauth_ctl_file_editors)

# Without systemd-analyze it counts as skipped, for all to see.
tesauth_host_script(ctl_units_test SCRIPT ctl_units_test.sh)
set_tests_properties(ctl_units_test PROPERTIES SKIP_RETURN_CODE 77)
