# Hosts, the authentication proxy and the directory, each on machines of their own.
add_library(tesauth_proxy_machine STATIC ${CMAKE_CURRENT_LIST_DIR}/lab_proxy_machine.cpp)
target_link_libraries(tesauth_proxy_machine PUBLIC tesauth_lab_commands)

add_library(spying_proxy MODULE ${PROJECT_SOURCE_DIR}/tests/support/spying_proxy.c)
target_include_directories(spying_proxy PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(spying_proxy PRIVATE ${CMAKE_DL_LIBS})
tesauth_side_by_side(spying_proxy)

tesauth_lab_test(lab_proxy_join
  SOURCES lab_proxy_join_test.cpp
  LIBRARIES tesauth_proxy_machine
  HOSTS 2)
target_compile_definitions(lab_proxy_join PRIVATE
                           SPYING_PROXY_FILE="$<TARGET_FILE:spying_proxy>"
                           MIDDLEMAN_FILE="${PROJECT_SOURCE_DIR}/tests/support/middleman.py")
add_dependencies(lab_proxy_join spying_proxy)

# They take minutes, and what they tell is how long hosts take.
if(TESAUTH_BENCH)
  tesauth_lab_test(lab_proxy_fleet
    SOURCES lab_proxy_fleet_test.cpp
    LIBRARIES tesauth_proxy_machine
    HOSTS 201 LABELS slow TIMEOUT 600)
  add_executable(lab_proxy_attacker ${CMAKE_CURRENT_LIST_DIR}/lab_proxy_attacker.cpp)
  target_link_libraries(lab_proxy_attacker PRIVATE tesauth_apxd_test)
  set_target_properties(lab_proxy_attacker PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)
  tesauth_lab_test(lab_proxy_attack
    SOURCES lab_proxy_attack_test.cpp
    LIBRARIES tesauth_proxy_machine
    HOSTS 2 LABELS slow TIMEOUT 600)
  target_compile_definitions(lab_proxy_attack PRIVATE
                             LAB_PROXY_ATTACKER_FILE="$<TARGET_FILE:lab_proxy_attacker>")
  add_dependencies(lab_proxy_attack lab_proxy_attacker)
endif()
