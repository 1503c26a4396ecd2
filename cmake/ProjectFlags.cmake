# Flags of the project's own code. Generated code and other people's headers are compiled without the warnings.

add_library(tarnbooster_warnings INTERFACE)
target_compile_options(tarnbooster_warnings INTERFACE -Wall -Wextra $<$<BOOL:${TARNBOOSTER_WERROR}>:-Werror>)

if(TARNBOOSTER_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "The fuzzers need clang: -DCMAKE_CXX_COMPILER=clang++, or the preset \"fuzz\".")
  endif()
  set(TARNBOOSTER_SANITIZE fuzzer-no-link,address,undefined)
endif()
if(TARNBOOSTER_SANITIZE)
  add_compile_options(-fsanitize=${TARNBOOSTER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  if(TARNBOOSTER_SANITIZE MATCHES undefined)
    # The vptr check probes memory through a pipe; some tests leave their process no descriptor for it.
    add_compile_options(-fno-sanitize=vptr)
  endif()
  add_link_options(-fsanitize=${TARNBOOSTER_SANITIZE})
endif()

# tarn_options_sources(SOURCE...): sources that take a command line apart. Debian has CLI11 as headers alone, and under a
# sanitizer the optimiser spends half a minute on each that includes them, for code that runs once.
function(tarn_options_sources)
  if(TARNBOOSTER_SANITIZE)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O0)
  endif()
endfunction()

# tarn_wrap_system(TARGET): the calls that tests/support/UdpWrap.cpp answers in the system's place.
function(tarn_wrap_system target)
  foreach(call socket bind getsockname pipe2 close write select sendto recvfrom)
    target_link_options(${target} PRIVATE -Wl,--wrap=${call})
  endforeach()
endfunction()
