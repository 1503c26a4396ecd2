# Provides the target tarnbooster_protobuf (the lite runtime) and TARNBOOSTER_PROTOC (a protoc of the same version).
#
# On Linux the runtime is the system's shared library. On Android, which has none, it is compiled in from its
# sources with hidden symbols, so that an application's own protobuf, of whatever version, never meets it.
# TARNBOOSTER_STATIC_PROTOBUF gives a Linux build the same shape.

option(TARNBOOSTER_STATIC_PROTOBUF "Compile the protobuf runtime in, hidden, from its sources" ${ANDROID})
set(TARNBOOSTER_PROTOBUF_SOURCE "" CACHE PATH "Top folder of the protobuf sources; fetched when empty")
set(TARNBOOSTER_PROTOBUF_VERSION 3.21.12)  # the wire format is stable, the generated code's fit to the runtime is not
set(TARNBOOSTER_PROTOBUF_URL "https://github.com/protocolbuffers/protobuf/archive/refs/tags/v3.21.12.tar.gz"
    CACHE STRING "Archive of the protobuf sources, fetched when TARNBOOSTER_PROTOBUF_SOURCE is empty")
# Of that archive, wherever it comes from; Debian's protobuf_3.21.12.orig.tar.gz is the same.
set(protobuf_hash SHA256=930c2c3b5ecc6c9c12615cf5ad93f1cd6e12d0aba862b572e076259970ac3a53)

# CMAKE_FIND_ROOT_PATH is for what goes into the result; protoc runs here.
find_program(TARNBOOSTER_PROTOC protoc REQUIRED NO_CMAKE_FIND_ROOT_PATH
             DOC "protoc of the machine that builds, same version as the runtime")

if(NOT TARNBOOSTER_STATIC_PROTOBUF)
  add_library(tarnbooster_protobuf INTERFACE)
  find_path(PROTOBUF_LITE_INCLUDE_DIR google/protobuf/message_lite.h REQUIRED)
  find_library(PROTOBUF_LITE_LIBRARY protobuf-lite REQUIRED)
  target_include_directories(tarnbooster_protobuf SYSTEM INTERFACE ${PROTOBUF_LITE_INCLUDE_DIR})
  target_link_libraries(tarnbooster_protobuf INTERFACE ${PROTOBUF_LITE_LIBRARY})
  return()
endif()

set(protobuf_source "${TARNBOOSTER_PROTOBUF_SOURCE}")
if(NOT protobuf_source)
  include(FetchContent)
  if(POLICY CMP0135)
    cmake_policy(SET CMP0135 NEW)  # unpacked files are as new as the fetch, so that a changed URL rebuilds
  endif()
  # SOURCE_SUBDIR names no folder of the archive: its sources are wanted, not its build.
  FetchContent_Declare(tarnbooster_protobuf_source URL "${TARNBOOSTER_PROTOBUF_URL}" URL_HASH ${protobuf_hash}
    SOURCE_SUBDIR sources-only)
  FetchContent_MakeAvailable(tarnbooster_protobuf_source)
  set(protobuf_source "${tarnbooster_protobuf_source_SOURCE_DIR}")
endif()
if(NOT EXISTS "${protobuf_source}/cmake/libprotobuf-lite.cmake")
  message(FATAL_ERROR "No protobuf sources at TARNBOOSTER_PROTOBUF_SOURCE=${protobuf_source}")
endif()

# One version everywhere: 3.21.12 is 3021012 in the sources, and protoc says it in words.
file(STRINGS "${protobuf_source}/src/google/protobuf/stubs/common.h" source_version
     REGEX "^#define GOOGLE_PROTOBUF_VERSION 3021012$")
execute_process(COMMAND ${TARNBOOSTER_PROTOC} --version OUTPUT_VARIABLE protoc_version
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
if(NOT source_version OR NOT protoc_version STREQUAL "libprotoc ${TARNBOOSTER_PROTOBUF_VERSION}")
  message(FATAL_ERROR "protobuf ${TARNBOOSTER_PROTOBUF_VERSION} is needed, of the sources in ${protobuf_source} and "
                      "of ${TARNBOOSTER_PROTOC} (${protoc_version})")
endif()

# The upstream list of the lite runtime's files; the rest of that file is upstream's own library.
file(STRINGS "${protobuf_source}/cmake/libprotobuf-lite.cmake" protobuf_lite_sources REGEX "/src/google/.*\\.cc$")
list(TRANSFORM protobuf_lite_sources STRIP)
list(TRANSFORM protobuf_lite_sources REPLACE "^.*/src/google/" "${protobuf_source}/src/google/")
if(NOT protobuf_lite_sources)
  message(FATAL_ERROR "No list of the lite runtime's files in ${protobuf_source}/cmake/libprotobuf-lite.cmake")
endif()

add_library(tarnbooster_protobuf STATIC ${protobuf_lite_sources})
target_include_directories(tarnbooster_protobuf SYSTEM PUBLIC "${protobuf_source}/src")
target_compile_definitions(tarnbooster_protobuf PRIVATE HAVE_PTHREAD)
target_compile_options(tarnbooster_protobuf PRIVATE -w -fvisibility=hidden -fvisibility-inlines-hidden
                       -ffunction-sections -fdata-sections)
target_link_libraries(tarnbooster_protobuf PUBLIC Threads::Threads)
if(ANDROID)
  target_link_libraries(tarnbooster_protobuf PRIVATE log)
endif()
