# The whole system, as it is installed, against real domain controllers.
find_package(nlohmann_json REQUIRED)

add_library(tesauth_lab_commands STATIC ${CMAKE_CURRENT_LIST_DIR}/lab_commands.cpp)
target_include_directories(tesauth_lab_commands PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tesauth_lab_commands PUBLIC nlohmann_json::nlohmann_json GTest::gmock)

tesauth_lab_test(lab_main_job
  SOURCES lab_main_job_test.cpp
  LIBRARIES tesauth_lab_commands
  DCS 2)

tesauth_lab_test(lab_failures
  SOURCES lab_failures_test.cpp
  LIBRARIES tesauth_lab_commands
  HOSTS 2)
