# Builds the library in Android's shape on a machine without the NDK: Android's branches of sources and CMake
# files, clang, lld, libraries of the right names. Empty libraries stand for Android's own, and the arm64 folder's
# headers for its headers, so what comes out has the form of the real thing and cannot run.
#
# TARNBOOSTER_SHAPE_ABI is arm64-v8a, or x86_64 for emulators on a PC, with this machine's headers instead.
set(TARNBOOSTER_SHAPE_ABI arm64-v8a CACHE STRING "Android's name of the processor")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARNBOOSTER_SHAPE_ABI)
if(TARNBOOSTER_SHAPE_ABI STREQUAL arm64-v8a)
  include(${CMAKE_CURRENT_LIST_DIR}/arm64-linux.cmake)
  set(processor aarch64)
else()
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
  set(processor x86_64)
endif()

set(ANDROID TRUE)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${processor}-linux-android24)
set(CMAKE_CXX_COMPILER_TARGET ${processor}-linux-android24)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)  # there is nothing to link a program with
set(CMAKE_HAVE_LIBC_PTHREAD TRUE)                    # which would have found this

set(folder ${TARNBOOSTER_ARM64_FOLDER}/usr/include)
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES
    ${folder}/android/nativehelper ${folder}/android ${folder}/${processor}-linux-gnu)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES
    ${folder}/c++/12 ${folder}/${processor}-linux-gnu/c++/12 ${CMAKE_C_STANDARD_INCLUDE_DIRECTORIES})

set(stubs ${CMAKE_BINARY_DIR}/stubs)
file(MAKE_DIRECTORY ${stubs})
foreach(name c log)
  if(NOT EXISTS ${stubs}/lib${name}.so)
    execute_process(COMMAND clang --target=${processor}-linux-android24 -nostdlib -fuse-ld=lld -shared
      -Wl,-soname,lib${name}.so -o ${stubs}/lib${name}.so -x c /dev/null COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-nostdlib -fuse-ld=lld -L${stubs}")
set(CMAKE_C_STANDARD_LIBRARIES "-lc")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lc")
