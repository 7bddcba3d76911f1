find_package(SQLite3 REQUIRED)

add_library(tesauth_proxy_accounts STATIC
  account_database.cpp
  account_keeper.cpp
  account_locks.cpp
  account_place.cpp
  account_records.cpp
  account_refusals.cpp
  account_rules.cpp
  account_search.cpp
  account_sessions.cpp
  account_sweep.cpp
  directory_accounts.cpp)
target_include_directories(tesauth_proxy_accounts PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tesauth_proxy_accounts PUBLIC tesauth_directory SQLite::SQLite3)
