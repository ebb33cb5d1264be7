# Most of what the compiler reads are the same few headers of others; read once for all, the build takes half the time.
#
# Tests always use them. Our own libraries do not in the preset "dev", which scripts/lint reads: there each file has to
# include what it names, or it does not compile.
option(KX_PRECOMPILED_HEADERS "Let the libraries use precompiled headers, as tests always do" OFF)

# g++ 12 reports accesses out of bounds, which there are none of, in the standard library's strings. It keeps that to
# itself because they are in system headers, but forgets that of those that are precompiled.
if(KX_PRECOMPILED_HEADERS AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(kx_flags INTERFACE -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread
                         -Wno-restrict)
endif()

# Without this ccache leaves alone what uses a precompiled header.
if(KX_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${KX_CCACHE})
endif()

# CMake's targets of Boost define it for some; all who share headers have to agree on it.
add_compile_definitions(BOOST_ALL_NO_LIB)

set(kx_common_headers
  <algorithm> <chrono> <condition_variable> <deque> <filesystem> <fstream> <functional> <map> <memory> <mutex>
  <optional> <set> <sstream> <string> <thread> <unordered_map> <utility> <vector>
  <boost/asio.hpp> <boost/shared_ptr.hpp>)

# Uses the headers that another target of the same kind has compiled.
function(kx_reuse_headers owner target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_precompile_headers(${target} REUSE_FROM ${owner})
    target_compile_options(${target} PRIVATE -fpch-preprocess)
  endif()
endfunction()

# Makes the target that compiles the headers for others.
function(kx_own_headers owner)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_precompile_headers(${owner} PRIVATE ${ARGN})
  endif()
endfunction()

# To be called for each library of ours.
function(kx_precompile)
  if(NOT KX_PRECOMPILED_HEADERS)
    return()
  endif()
  if(NOT TARGET kx_precompiled)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/Precompiled.cpp CONTENT "")
    add_library(kx_precompiled STATIC ${PROJECT_BINARY_DIR}/Precompiled.cpp)
    target_link_libraries(kx_precompiled PRIVATE kx_wire_proto Boost::headers)
    kx_own_headers(kx_precompiled ${kx_common_headers} <kxwire.pb.h>)
  endif()
  foreach(target IN LISTS ARGN)
    kx_reuse_headers(kx_precompiled ${target})
  endforeach()
endfunction()
