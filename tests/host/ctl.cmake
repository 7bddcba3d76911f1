# The command, as it is installed, over the scripted directory provider.
find_package(nlohmann_json REQUIRED)

add_library(tesauth_ctl_test_host STATIC
  ${CMAKE_CURRENT_LIST_DIR}/ctl_host.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ctl_process.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_host.cpp)
target_compile_definitions(tesauth_ctl_test_host PRIVATE
                           SCRIPTED_PROVIDER_FILE="$<TARGET_FILE:scripted_provider>")
target_link_libraries(tesauth_ctl_test_host PUBLIC tesauth_test_support GTest::gmock
                      nlohmann_json::nlohmann_json ${CMAKE_DL_LIBS})
add_dependencies(tesauth_ctl_test_host scripted_provider tesauthctl)

foreach(name ctl_usage_test ctl_status_test ctl_directory_test ctl_membership_test
             ctl_password_test ctl_settings_test)
  tesauth_host_test(${name} SOURCES ${name}.cpp LIBRARIES tesauth_ctl_test_host)
endforeach()
