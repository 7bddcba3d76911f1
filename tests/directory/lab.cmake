# The whole system, as it is installed, against real domain controllers.
find_package(nlohmann_json REQUIRED)

add_library(tesauth_lab_commands STATIC ${CMAKE_CURRENT_LIST_DIR}/lab_commands.cpp)
target_include_directories(tesauth_lab_commands PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tesauth_lab_commands PUBLIC nlohmann_json::nlohmann_json GTest::gmock)

tesauth_lab_test(lab_main_job
  SOURCES lab_main_job_test.cpp
  LIBRARIES tesauth_lab_commands
  DCS 2)

add_executable(lab_join_program ${CMAKE_CURRENT_LIST_DIR}/lab_join_program.cpp)
target_link_libraries(lab_join_program PRIVATE tesauth)
set_target_properties(lab_join_program PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)
tesauth_lab_test(lab_failures
  SOURCES lab_failures_test.cpp
  LIBRARIES tesauth_lab_commands
  HOSTS 3)
target_compile_definitions(lab_failures PRIVATE
                           LAB_JOIN_PROGRAM_FILE="$<TARGET_FILE:lab_join_program>")
add_dependencies(lab_failures lab_join_program)

tesauth_lab_test(lab_controllers
  SOURCES lab_controllers_test.cpp lab_clocks_test.cpp lab_long_names_test.cpp
          hostile_controller.cpp
  LIBRARIES tesauth_lab_commands lber
  HOSTS 6)

tesauth_lab_test(lab_fleet
  SOURCES lab_fleet_test.cpp
  LIBRARIES tesauth_lab_commands
  HOSTS 50 LABELS slow)

add_executable(lab_diagnose_program ${CMAKE_CURRENT_LIST_DIR}/lab_diagnose_program.cpp)
target_link_libraries(lab_diagnose_program PRIVATE tesauth_directory nlohmann_json::nlohmann_json)
set_target_properties(lab_diagnose_program PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)
tesauth_lab_test(lab_diagnose
  SOURCES lab_diagnose_test.cpp lab_diagnose_membership_test.cpp
  LIBRARIES tesauth_lab_commands
  DCS 2)
target_compile_definitions(lab_diagnose PRIVATE
                           LAB_DIAGNOSE_PROGRAM_FILE="$<TARGET_FILE:lab_diagnose_program>")
add_dependencies(lab_diagnose lab_diagnose_program)

tesauth_lab_test(lab_trusts
  SOURCES lab_trusts_test.cpp lab_users_test.cpp lab_places.cpp adldap_calls.cpp
  LIBRARIES tesauth_lab_commands tesauth_directory
  DCS 3 IN host1)
target_include_directories(lab_trusts PRIVATE ${PROJECT_SOURCE_DIR}/src/provider)
