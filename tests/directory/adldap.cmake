# The provider plug-in and the Active Directory client under it.

tesauth_host_test(adldap_names
  SOURCES adldap_names_test.cpp
  LIBRARIES tesauth_directory)

tesauth_host_test(adldap_locator
  SOURCES adldap_locator_test.cpp
  LIBRARIES tesauth_directory)

tesauth_lab_test(adldap_plugin
  SOURCES adldap_plugin_test.cpp adldap_accounts_test.cpp
  LIBRARIES tesauth_directory
  DCS 2 IN host1)
target_include_directories(adldap_plugin PRIVATE ${PROJECT_SOURCE_DIR}/src/provider)

tesauth_host_test(adldap_resolver
  SOURCES adldap_resolver_test.cpp
  LIBRARIES tesauth_directory)
