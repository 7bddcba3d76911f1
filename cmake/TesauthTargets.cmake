# What every target of this project has in common.

option(TESAUTH_WERROR "Treat warnings as errors" OFF)
option(TESAUTH_FUZZ "Build the fuzz harnesses, and everything as they need it; takes clang" OFF)
set(TESAUTH_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

# Binaries find their libraries where they are installed, never in the build tree: what the tests
# run is what a host gets.
set(CMAKE_SKIP_BUILD_RPATH ON)
set(CMAKE_SKIP_INSTALL_RPATH ON)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wformat=2
                    "$<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual;-Wnon-virtual-dtor>")
if(TESAUTH_WERROR)
  add_compile_options(-Werror)
endif()
if(TESAUTH_SANITIZE)
  add_compile_options(-fsanitize=${TESAUTH_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TESAUTH_SANITIZE})
endif()
if(TESAUTH_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link) # a fuzzer sees which code an input reaches
endif()
if(NOT TESAUTH_SANITIZE)
  add_link_options(-Wl,--no-undefined) # sanitizer run-times resolve in the executable
endif()
add_link_options(-Wl,-z,now -Wl,-z,relro -Wl,--as-needed)
