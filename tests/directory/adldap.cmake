# The provider plug-in and the Active Directory client under it.

tesauth_host_test(adldap_names
  SOURCES adldap_names_test.cpp
  LIBRARIES tesauth_directory)

tesauth_lab_test(adldap_plugin
  SOURCES adldap_plugin_test.cpp
  DCS 2 IN host1)
target_include_directories(adldap_plugin PRIVATE ${PROJECT_SOURCE_DIR}/src/provider)

tesauth_host_test(adldap_resolver
  SOURCES adldap_resolver_test.cpp
  LIBRARIES tesauth_directory)
