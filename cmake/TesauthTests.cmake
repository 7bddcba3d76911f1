# How tests are registered. Every test binary runs inside a private host, over the staged install
# tree, so that what is tested is what a host gets. Each ctest test is one binary.
#
#   tesauth_host_test(NAME
#       SOURCES file...          relative to the folder of the calling file
#       [LIBRARIES target...]    besides GoogleTest and tesauth_test_support
#       [HOSTNAME name]          the private host's name, "host1" unless told
#       [LABELS label...]        "slow" keeps a test out of the runs with the address sanitizer;
#                                "stress" takes it into the one with the thread sanitizer
#       [ENVIRONMENT VAR=value...]
#       [ARGUMENTS word...]      for the binary
#       [TIMEOUT seconds])       60 unless told
#
#   tesauth_lab_test(NAME        the same, besides:
#       [DCS n]                  domain controllers: 1 unless told, or 2 that trust one another, or
#                                these and a third that the first one trusts
#       [HOSTS n]                hosts: 1 unless told
#       [IN hostN])              run on that host of the lab; unless told the binary runs beside
#                                the hosts and reaches them with "$TESAUTH_LAB host hostN COMMAND"
#
#   tesauth_host_script(NAME SCRIPT file [HOSTNAME ...] [LABELS ...] [ENVIRONMENT ...]
#                       [ARGUMENTS ...] [TIMEOUT s])
#       runs a bash script on a private host.
#
#   tesauth_lab_script(NAME SCRIPT file [DCS n] [HOSTS n] [LABELS ...] [ENVIRONMENT ...] [TIMEOUT s])
#       runs a bash script beside the hosts of a lab.
#
# In all of them TESAUTH_STAGE is the staged install tree, TESAUTH_SOURCE_DIR and TESAUTH_BINARY_DIR
# are the two trees.

find_package(GTest REQUIRED)
find_package(Threads REQUIRED)

set(TESAUTH_STAGE ${PROJECT_BINARY_DIR}/stage)
set(TESAUTH_PRIVATE_HOST ${PROJECT_SOURCE_DIR}/tests/support/private-host)
set(TESAUTH_LAB ${PROJECT_SOURCE_DIR}/tests/support/lab)

set(TESAUTH_TEST_ENVIRONMENT
    TESAUTH_STAGE=${TESAUTH_STAGE}
    TESAUTH_LAB=${TESAUTH_LAB}
    TESAUTH_SOURCE_DIR=${PROJECT_SOURCE_DIR}
    TESAUTH_BINARY_DIR=${PROJECT_BINARY_DIR}
    CMAKE_GENERATOR=${CMAKE_GENERATOR} # for tests that build something
    ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:verify_asan_link_order=0
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1)

add_test(NAME stage
         COMMAND ${CMAKE_COMMAND} -D BINARY_DIR=${PROJECT_BINARY_DIR} -D STAGE=${TESAUTH_STAGE}
                 -P ${CMAKE_CURRENT_LIST_DIR}/StageInstall.cmake)
set_tests_properties(stage PROPERTIES FIXTURES_SETUP stage)

# The tests labelled "stress" and what they run on: nothing else is built with the thread sanitizer.
add_custom_target(tesauth_stress DEPENDS product)

# The words that start a lab, as far as the caller's arguments say.
function(tesauth_lab_words result dcs hosts)
  set(words ${TESAUTH_LAB} run --stage ${TESAUTH_STAGE} --keep ${PROJECT_BINARY_DIR})
  if(dcs)
    list(APPEND words --dcs ${dcs})
  endif()
  if(hosts)
    list(APPEND words --hosts ${hosts})
  endif()
  set(${result} ${words} -- PARENT_SCOPE)
endfunction()

# Properties that all tests in namespaces have; reads the caller's ARG_ variables.
macro(tesauth_test_properties name kind timeout)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT ${timeout})
  endif()
  set_tests_properties(${name} PROPERTIES
    FIXTURES_REQUIRED stage
    LABELS "namespaces;${kind};${ARG_LABELS}"
    ENVIRONMENT "${TESAUTH_TEST_ENVIRONMENT};${ARG_ENVIRONMENT}"
    TIMEOUT ${ARG_TIMEOUT})
  if("stress" IN_LIST ARG_LABELS AND TARGET ${name})
    add_dependencies(tesauth_stress ${name})
  endif()
endmacro()

macro(tesauth_test_executable name)
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "${name}: a test needs SOURCES")
  endif()
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${name}: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  list(TRANSFORM ARG_SOURCES PREPEND "${CMAKE_CURRENT_LIST_DIR}/" REGEX "^[^/]")
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} tesauth_test_support
                                        GTest::gmock GTest::gmock_main Threads::Threads)
  # Not beside the sources' own folder: one place to look for test binaries.
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/bin)
endmacro()

function(tesauth_host_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "HOSTNAME;TIMEOUT"
                        "SOURCES;LIBRARIES;LABELS;ENVIRONMENT;ARGUMENTS")
  tesauth_test_executable(${name})
  if(NOT ARG_HOSTNAME)
    set(ARG_HOSTNAME host1)
  endif()
  add_test(NAME ${name}
           COMMAND ${TESAUTH_PRIVATE_HOST} --stage ${TESAUTH_STAGE} --keep ${PROJECT_BINARY_DIR}
                   --hostname ${ARG_HOSTNAME} -- $<TARGET_FILE:${name}> ${ARG_ARGUMENTS})
  tesauth_test_properties(${name} host 60)
endfunction()

function(tesauth_host_script name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "SCRIPT;HOSTNAME;TIMEOUT"
                        "LABELS;ENVIRONMENT;ARGUMENTS")
  if(NOT ARG_HOSTNAME)
    set(ARG_HOSTNAME host1)
  endif()
  cmake_path(ABSOLUTE_PATH ARG_SCRIPT BASE_DIRECTORY ${CMAKE_CURRENT_LIST_DIR})
  add_test(NAME ${name}
           COMMAND ${TESAUTH_PRIVATE_HOST} --stage ${TESAUTH_STAGE} --keep ${PROJECT_BINARY_DIR}
                   --hostname ${ARG_HOSTNAME} -- bash ${ARG_SCRIPT} ${ARG_ARGUMENTS})
  tesauth_test_properties(${name} host 60)
endfunction()

function(tesauth_lab_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "DCS;HOSTS;IN;TIMEOUT"
                        "SOURCES;LIBRARIES;LABELS;ENVIRONMENT;ARGUMENTS")
  tesauth_test_executable(${name})
  tesauth_lab_words(words "${ARG_DCS}" "${ARG_HOSTS}")
  if(ARG_IN)
    list(APPEND words ${TESAUTH_LAB} host ${ARG_IN})
  endif()
  add_test(NAME ${name} COMMAND ${words} $<TARGET_FILE:${name}> ${ARG_ARGUMENTS})
  tesauth_test_properties(${name} lab 240)
endfunction()

function(tesauth_lab_script name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "SCRIPT;DCS;HOSTS;TIMEOUT" "LABELS;ENVIRONMENT")
  tesauth_lab_words(words "${ARG_DCS}" "${ARG_HOSTS}")
  cmake_path(ABSOLUTE_PATH ARG_SCRIPT BASE_DIRECTORY ${CMAKE_CURRENT_LIST_DIR})
  add_test(NAME ${name} COMMAND ${words} bash ${ARG_SCRIPT})
  tesauth_test_properties(${name} lab 240)
endfunction()
