# Not in the sanitizer runs: somebody else's program is not built with a sanitizer.
set(ARG_LABELS slow)
add_test(NAME external_program_test
         COMMAND ${TESAUTH_PRIVATE_HOST} --stage ${TESAUTH_STAGE} --
                 ${CMAKE_CURRENT_LIST_DIR}/external_program_test.sh
                 ${CMAKE_CURRENT_LIST_DIR}/external)
tesauth_test_properties(external_program_test host 120)
unset(ARG_LABELS)
