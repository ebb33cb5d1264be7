# Build options and the compile flags every target shares.
option(KX_BUILD_TESTS "Build the unit tests and the fuzz corpus replayers" ON)
option(KX_BUILD_BENCH "Build the benchmarks" OFF)
option(KX_FUZZ "Build the fuzz targets for libFuzzer (needs clang)" OFF)
set(KX_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. 'address,undefined' or 'thread'")
set(KX_CLIENT_ROOT "" CACHE PATH
    "Take the management agent's client library from this installed tree instead of building it")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# No -DNDEBUG in any build type: the system counts on an assertion stopping the
# process when a null shared pointer is dereferenced, in production too.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")
set(KX_DEBUG_FLAGS "-O0 -g" CACHE STRING "Compile flags of the Debug build type")
set(CMAKE_CXX_FLAGS_DEBUG "${KX_DEBUG_FLAGS}")

find_program(KX_CCACHE ccache)

# What runs on hosts is hardened as Debian's own packages are; sanitizers bring their own checks.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT KX_SANITIZE)
  string(APPEND CMAKE_CXX_FLAGS_RELEASE " -D_FORTIFY_SOURCE=2 -fstack-protector-strong")
  string(APPEND CMAKE_CXX_FLAGS_RELWITHDEBINFO " -D_FORTIFY_SOURCE=2 -fstack-protector-strong")
  add_link_options(-Wl,-z,relro,-z,now)
endif()
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_library(kx_flags INTERFACE)
target_compile_options(kx_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 13)
  # It takes a reference that a function returns for one into its argument, a temporary.
  target_compile_options(kx_flags INTERFACE -Wno-dangling-reference)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND KX_SANITIZE)
  # g++ 12 reports false maybe-uninitialized findings in instrumented standard headers.
  target_compile_options(kx_flags INTERFACE -Wno-error=maybe-uninitialized -Wno-maybe-uninitialized)
endif()

if(KX_SANITIZE)
  add_compile_options(-fsanitize=${KX_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KX_SANITIZE})
  if(KX_SANITIZE MATCHES "thread")
    # The thread sanitizer does not know stand-alone fences; Asio's queues are ordered by their mutexes anyway.
    add_compile_definitions(BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
  if(KX_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
if(KX_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
