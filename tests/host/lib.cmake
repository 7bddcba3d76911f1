# The scripted directory provider, and its variants that lack one of its records.
set(scripted_provider_sources
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_calls.c
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_maintenance.c
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_provider.c
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_records.c
  ${PROJECT_SOURCE_DIR}/tests/support/scripted_rules.c)

# Plug-ins define the same names, as the interface wants; the address sanitizer takes that for an
# error when two of them are loaded.
function(tesauth_side_by_side name)
  if(TESAUTH_SANITIZE MATCHES address)
    target_compile_options(${name} PRIVATE -fno-sanitize=address)
  endif()
endfunction()

function(tesauth_scripted_provider name)
  add_library(${name} MODULE ${scripted_provider_sources})
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include
                             ${PROJECT_SOURCE_DIR}/tests/support)
  target_link_libraries(${name} PRIVATE Threads::Threads)
  tesauth_side_by_side(${name})
  # Copies of it are loaded side by side under different names; none may use another's symbols.
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic)
endfunction()

tesauth_scripted_provider(scripted_provider)
tesauth_scripted_provider(scripted_provider_without_metadata SCRIPTED_WITHOUT_METADATA)
tesauth_scripted_provider(scripted_provider_without_operations SCRIPTED_WITHOUT_OPERATIONS)
tesauth_scripted_provider(scripted_provider_without_maintenance SCRIPTED_WITHOUT_MAINTENANCE)
tesauth_scripted_provider(scripted_provider_unresolved SCRIPTED_UNRESOLVED)
# One of its functions cannot be resolved, which matters only when that function is called.
target_link_options(scripted_provider_unresolved PRIVATE -Wl,-z,undefs -Wl,-z,lazy)

# The scripted proxy client, and its variants that lack the table or one entry of it.
function(tesauth_scripted_proxy name)
  add_library(${name} MODULE ${PROJECT_SOURCE_DIR}/tests/support/scripted_proxy.c)
  target_compile_definitions(${name} PRIVATE _GNU_SOURCE ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/include
                             ${PROJECT_SOURCE_DIR}/tests/support)
  tesauth_side_by_side(${name})
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic)
endfunction()

tesauth_scripted_proxy(scripted_proxy)
# As a client that has more to tell: it stays loaded.
tesauth_scripted_proxy(scripted_proxy_that_stays)
target_link_options(scripted_proxy_that_stays PRIVATE -Wl,-z,nodelete)
tesauth_scripted_proxy(scripted_proxy_without_table SCRIPTED_PROXY_WITHOUT_TABLE)
foreach(entry 1 2 3)
  tesauth_scripted_proxy(scripted_proxy_without_entry_${entry} SCRIPTED_PROXY_WITHOUT_ENTRY=${entry})
endforeach()

add_library(throwing_provider MODULE ${PROJECT_SOURCE_DIR}/tests/support/throwing_provider.cpp)
tesauth_side_by_side(throwing_provider)
target_include_directories(throwing_provider PRIVATE ${PROJECT_SOURCE_DIR}/include)

tesauth_lib_test(lib_stores_test lib_stores_test.cpp)
tesauth_lib_test(lib_provider_test lib_provider_loading_test.cpp lib_provider_operations_test.cpp)
tesauth_lib_test(lib_config_store_test lib_config_store_test.cpp)
tesauth_lib_test(lib_queries_test lib_queries_test.cpp lib_refresh_test.cpp)

# Tests that spoil the store's database, and give the host a name.
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(SQLite3 REQUIRED)
add_library(tesauth_spoiled_host OBJECT
  ${PROJECT_SOURCE_DIR}/tests/support/named_host.cpp
  ${PROJECT_SOURCE_DIR}/tests/support/spoiled_store.cpp)
target_link_libraries(tesauth_spoiled_host
  PUBLIC SQLite::SQLite3 PRIVATE tesauth orvcfg tesauth_test_support GTest::gtest)
tesauth_lib_test(lib_membership_test lib_host_name_test.cpp lib_membership_test.cpp)
tesauth_lib_test(lib_proxy_test
  lib_apx_proxy_test.cpp lib_proxy_certificate_test.cpp lib_proxy_join_test.cpp)
target_link_libraries(lib_proxy_test PRIVATE OpenSSL::Crypto)
# It stands in for the host's own libraries.
tesauth_lib_test(lib_proxy_host_test lib_proxy_host_test.cpp)
target_link_libraries(lib_proxy_host_test PRIVATE tesauth_freed_memory)
foreach(test lib_membership_test lib_proxy_test lib_proxy_host_test)
  target_link_libraries(${test} PRIVATE tesauth_spoiled_host hykctlcore)
endforeach()

tesauth_lib_test(lib_vtable_test lib_vtable_test.cpp)

add_executable(lib_exit_program ${CMAKE_CURRENT_LIST_DIR}/lib_exit_program.cpp)
target_link_libraries(lib_exit_program PRIVATE tesauth Threads::Threads)
tesauth_host_test(lib_exit_test
  SOURCES lib_exit_test.cpp ${PROJECT_SOURCE_DIR}/tests/support/scripted_host.cpp
  LIBRARIES ${CMAKE_DL_LIBS}
  LABELS slow TIMEOUT 180)
tesauth_scripted_host(lib_exit_test)
target_compile_definitions(lib_exit_test
  PRIVATE LIB_EXIT_PROGRAM_FILE="$<TARGET_FILE:lib_exit_program>")
add_dependencies(lib_exit_test lib_exit_program)

tesauth_host_test(lib_stress_test
  SOURCES lib_stress_test.cpp ${PROJECT_SOURCE_DIR}/tests/support/scripted_host.cpp
  LIBRARIES tesauth ${CMAKE_DL_LIBS}
  LABELS stress TIMEOUT 300)
tesauth_scripted_host(lib_stress_test)

tesauth_host_script(lib_headers_test SCRIPT lib_headers_test.sh LABELS slow TIMEOUT 180)
# Instrumented libraries show more than ours.
tesauth_host_script(lib_symbols_test SCRIPT lib_symbols_test.sh LABELS slow)
