# The system while its directory fails.
tesauth_lab_test(lab_frozen
  SOURCES lab_frozen_test.cpp
  LIBRARIES tesauth_lab_commands tesauth
  DCS 2 IN host1)

tesauth_lab_test(lab_random_faults
  SOURCES lab_random_faults_test.cpp
  LIBRARIES tesauth_lab_commands
  HOSTS 30 LABELS slow TIMEOUT 400)

add_executable(lab_exit_program ${CMAKE_CURRENT_LIST_DIR}/lab_exit_program.cpp)
target_link_libraries(lab_exit_program PRIVATE tesauth Threads::Threads)
set_target_properties(lab_exit_program PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)
tesauth_lab_test(lab_exit
  SOURCES lab_exit_test.cpp
  LIBRARIES tesauth_lab_commands
  DCS 2 IN host1 LABELS slow)
target_compile_definitions(lab_exit PRIVATE
                           LAB_EXIT_PROGRAM_FILE="$<TARGET_FILE:lab_exit_program>")
add_dependencies(lab_exit lab_exit_program)

tesauth_lab_test(lab_key_rotation
  SOURCES lab_key_rotation_test.cpp lab_key_faults_test.cpp lab_key_versions_test.cpp
          lab_key_rotation_hooks.cpp
  LIBRARIES tesauth_directory
  IN host1)
# The library under test calls this binary's version of some functions.
set_target_properties(lab_key_rotation PROPERTIES ENABLE_EXPORTS ON)
target_link_libraries(lab_key_rotation PRIVATE ${CMAKE_DL_LIBS})
