# Parts of the library that need no directory provider.
add_library(tesauth_faults OBJECT ${PROJECT_SOURCE_DIR}/tests/faults/faults.cpp)
target_include_directories(tesauth_faults PUBLIC ${PROJECT_SOURCE_DIR}/tests/faults)
target_link_libraries(tesauth_faults PUBLIC ${CMAKE_DL_LIBS})

# tesauth_scripted_host(NAME): the test finds the scripted provider and its variants.
function(tesauth_scripted_host name)
  foreach(variant scripted_provider scripted_provider_without_metadata
                  scripted_provider_without_operations scripted_provider_unresolved
                  throwing_provider scripted_proxy scripted_proxy_without_table
                  scripted_proxy_without_entry_1 scripted_proxy_without_entry_2
                  scripted_proxy_without_entry_3)
    string(TOUPPER ${variant}_FILE macro)
    target_compile_definitions(${name} PRIVATE ${macro}="$<TARGET_FILE:${variant}>")
    add_dependencies(${name} ${variant})
  endforeach()
endfunction()

# tesauth_lib_test(NAME source...): over the library, with the scripted provider at hand and the C
# library's functions ready to fail.
function(tesauth_lib_test name)
  tesauth_host_test(${name}
    SOURCES ${ARGN} ${PROJECT_SOURCE_DIR}/tests/support/scripted_host.cpp
    LIBRARIES tesauth orvcfg tesauth_faults ${CMAKE_DL_LIBS})
  tesauth_scripted_host(${name})
  # The library is to find the functions that the test defines.
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
endfunction()

tesauth_lib_test(lib_exceptions_test lib_exceptions_test.cpp)
tesauth_lib_test(lib_files_test
  lib_apx_thumbprint_store_test.cpp lib_atomic_file_stream_test.cpp lib_configuration_test.cpp)
tesauth_lib_test(lib_ad_cache_test lib_ad_cache_test.cpp)
tesauth_lib_test(lib_requests_test lib_requests_test.cpp)
tesauth_lib_test(lib_systemconfiguration_test
  lib_nss_test.cpp lib_pam_test.cpp lib_pam_values_test.cpp)
