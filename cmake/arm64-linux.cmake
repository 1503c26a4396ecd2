# Cross build for 64-bit Arm Linux on a Debian machine, against a folder of Debian's arm64 packages.
#
# scripts/arm64-folder.sh makes the folder. Its place: TARNBOOSTER_ARM64_FOLDER, as a CMake variable or in the
# environment, else tarnbooster/arm64-bookworm in the user's cache. Programs built with it run under
# qemu-aarch64-static, ctest and CMake know how.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT TARNBOOSTER_ARM64_FOLDER)
  if(DEFINED ENV{TARNBOOSTER_ARM64_FOLDER})
    set(TARNBOOSTER_ARM64_FOLDER "$ENV{TARNBOOSTER_ARM64_FOLDER}")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(TARNBOOSTER_ARM64_FOLDER "$ENV{XDG_CACHE_HOME}/tarnbooster/arm64-bookworm")
  else()
    set(TARNBOOSTER_ARM64_FOLDER "$ENV{HOME}/.cache/tarnbooster/arm64-bookworm")
  endif()
endif()
if(NOT EXISTS "${TARNBOOSTER_ARM64_FOLDER}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "No arm64 folder at ${TARNBOOSTER_ARM64_FOLDER}; scripts/arm64-folder.sh makes it")
endif()
# CMake reads this file again for every compiler check, in projects of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARNBOOSTER_ARM64_FOLDER)

set(CMAKE_SYSROOT "${TARNBOOSTER_ARM64_FOLDER}")
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64-static;-L;${CMAKE_SYSROOT}")

# Programs (protoc, javac) are the building machine's; everything that goes into the result is the folder's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
