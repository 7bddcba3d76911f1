# What the authentication proxy does in the directory.

add_library(tesauth_proxy_lab STATIC
  ${CMAKE_CURRENT_LIST_DIR}/proxy_interference.cpp
  ${CMAKE_CURRENT_LIST_DIR}/proxy_lab.cpp)
target_include_directories(tesauth_proxy_lab PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tesauth_proxy_lab PUBLIC tesauth_proxy_accounts tesauth_lab_commands
                      ${CMAKE_DL_LIBS})

tesauth_lab_test(lab_proxy_accounts
  SOURCES lab_proxy_accounts_test.cpp lab_proxy_resets_test.cpp
  LIBRARIES tesauth_proxy_lab
  IN host1)

tesauth_lab_test(lab_proxy_sweep
  SOURCES lab_proxy_sweep_test.cpp
  LIBRARIES tesauth_proxy_lab
  IN host1)

tesauth_lab_test(lab_proxy_failures
  SOURCES lab_proxy_crashes_test.cpp lab_proxy_failures_test.cpp lab_proxy_sessions_test.cpp
  LIBRARIES tesauth_proxy_lab
  IN host1)

tesauth_lab_test(lab_proxy_trusts
  SOURCES lab_proxy_trusts_test.cpp
  LIBRARIES tesauth_proxy_lab
  DCS 3
  IN host1)

tesauth_host_test(proxy_accounts
  SOURCES proxy_account_locks_test.cpp proxy_account_records_test.cpp proxy_account_rules_test.cpp
          proxy_keytab_check_test.cpp
  LIBRARIES tesauth_proxy_accounts tesauth_proxy_server)
