# Cross-compiling for 64-bit Windows with Debian's mingw-w64 GCC (posix
# thread model), running the results under Wine.
#
#   cmake -S . -B build/windows \
#       -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-x86_64.cmake \
#       -DKESTREL_WINDOWS_PREFIXES="<boost prefix>;<googletest prefix>"
#
# KESTREL_WINDOWS_PREFIXES lists installation prefixes of libraries built for
# the target (scripts/build-boost-mingw, scripts/build-gtest-mingw): packages
# are looked for only there and in the compiler's own sysroot, never among
# the host's libraries.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KESTREL_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KESTREL_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KESTREL_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${KESTREL_MINGW_TRIPLET}-windres)

set(KESTREL_WINDOWS_PREFIXES "${KESTREL_WINDOWS_PREFIXES}" CACHE STRING
    "Installation prefixes of libraries built for Windows")
# try_compile projects read this file again; hand them the prefixes too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTREL_WINDOWS_PREFIXES)

set(CMAKE_FIND_ROOT_PATH /usr/${KESTREL_MINGW_TRIPLET} ${KESTREL_WINDOWS_PREFIXES})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs (and gtest_discover_tests) run under Wine. Debian puts no
# wine64 on PATH; its loader lives in /usr/lib/wine.
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(KESTREL_WINE_LOADER NAMES wine64 wine PATHS /usr/lib/wine NO_DEFAULT_PATH)
    find_program(KESTREL_WINE_LOADER NAMES wine64 wine)
    if(KESTREL_WINE_LOADER)
        set(CMAKE_CROSSCOMPILING_EMULATOR "${KESTREL_WINE_LOADER}")
    endif()
endif()
