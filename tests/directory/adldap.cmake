# The provider plug-in and the Active Directory client under it.

tesauth_host_test(adldap_names
  SOURCES adldap_names_test.cpp
  LIBRARIES tesauth_directory)

tesauth_host_test(adldap_locator
  SOURCES adldap_locator_test.cpp
  LIBRARIES tesauth_directory)

tesauth_host_test(adldap_canonical_user
  SOURCES adldap_canonical_user_test.cpp
  LIBRARIES tesauth_directory)

tesauth_lab_test(adldap_plugin
  SOURCES adldap_plugin_test.cpp adldap_accounts_test.cpp adldap_calls.cpp
  LIBRARIES tesauth_directory
  DCS 2 IN host1)
target_include_directories(adldap_plugin PRIVATE ${PROJECT_SOURCE_DIR}/src/provider)

tesauth_host_test(adldap_kdc_exchange
  SOURCES adldap_kdc_exchange_test.cpp
  LIBRARIES tesauth_directory)
target_link_libraries(adldap_kdc_exchange PRIVATE ${CMAKE_DL_LIBS})

tesauth_host_test(adldap_resolver
  SOURCES adldap_resolver_test.cpp
  LIBRARIES tesauth_directory)

tesauth_lab_test(adldap_prepared_account
  SOURCES adldap_prepared_account_test.cpp
  LIBRARIES tesauth_directory
  IN host1)
target_include_directories(adldap_prepared_account PRIVATE ${PROJECT_SOURCE_DIR}/src/provider)

tesauth_host_test(adldap_key_change
  SOURCES adldap_key_change_test.cpp
  LIBRARIES tesauth_directory)
set_target_properties(adldap_key_change PROPERTIES ENABLE_EXPORTS ON)
target_link_libraries(adldap_key_change PRIVATE ${CMAKE_DL_LIBS})

tesauth_host_test(adldap_diagnosis
  SOURCES adldap_diagnosis_test.cpp
  LIBRARIES tesauth_directory)
