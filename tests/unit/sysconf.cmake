# PAM policies and the name-service switch, beside slow and plain models of their readers.
add_library(sysconf_agreement STATIC
  ${CMAKE_CURRENT_LIST_DIR}/sysconf_agreement.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sysconf_library.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sysconf_nss_model.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sysconf_pam_model.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sysconf_reading.cpp)
target_include_directories(sysconf_agreement PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(sysconf_agreement PUBLIC tesauth)

tesauth_host_test(sysconf_model_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sysconf_model_test.cpp
  LIBRARIES sysconf_agreement
  TIMEOUT 180)
if(TESAUTH_SANITIZE)
  target_compile_definitions(sysconf_model_test PRIVATE SYSCONF_SHORTER_INPUTS)
endif()

tesauth_host_test(sysconf_debian_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sysconf_debian_test.cpp
  LIBRARIES sysconf_agreement)
target_compile_definitions(sysconf_debian_test PRIVATE
  DEBIAN_FILES="${PROJECT_SOURCE_DIR}/tests/support/debian12")

# What the fuzzers found worth keeping, without a fuzzer.
foreach(format pam nss)
  tesauth_host_test(sysconf_${format}_corpus_test
    SOURCES ${PROJECT_SOURCE_DIR}/tests/fuzz/${format}_fuzz.cpp
            ${PROJECT_SOURCE_DIR}/tests/fuzz/replay.cpp
    LIBRARIES sysconf_agreement
    ARGUMENTS ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${format})
endforeach()
