# Script mode: install, configure the consumer, build it and run it.
include("${CMAKE_CURRENT_LIST_DIR}/install_prefix.cmake")
set(prefix "${WORK_DIR}/prefix")
set(build "${WORK_DIR}/consumer-build")

install_kestrel()

# A cross build (TOOLCHAIN_FILE given): the consumer uses the same toolchain
# and dependency prefixes, finds the installed package below the scratch
# prefix, and runs through EMULATOR with the prefix's DLLs on its search path.
set(cross_args)
set(emulator)
set(expected_root "${prefix}")
if(TOOLCHAIN_FILE)
    string(REPLACE "|" ";" prefixes "${WINDOWS_PREFIXES}")
    file(WRITE "${WORK_DIR}/cross.cmake"
        "set(KESTREL_WINDOWS_PREFIXES \"${prefixes};${prefix}\" CACHE STRING \"\")\n")
    set(cross_args -C "${WORK_DIR}/cross.cmake" "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
    string(REPLACE "|" ";" emulator "${EMULATOR}")
    set(ENV{WINEPATH} "${TARGET_PREFIX}\\bin")
    set(expected_root "${TARGET_PREFIX}")
endif()

run(${CMAKE_COMMAND} ${cross_args} -S "${CONSUMER_SOURCE_DIR}" -B "${build}"
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    # The same sanitizer flags as the library, so that a sanitized build's
    # consumer starts with the sanitizer runtime.
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${build}")
run(${emulator} "${build}/consumer${EXE_SUFFIX}" "${expected_root}")

# The consumer's configure asked for Boost's headers and nothing else: the
# Boost libraries are the shared library's own.
file(STRINGS "${build}/CMakeCache.txt" boost_libraries
    REGEX "^(boost_(thread|chrono|log)_DIR|Boost_(THREAD|CHRONO|LOG)_LIBRARY)")
if(boost_libraries)
    message(FATAL_ERROR "the package looked for Boost libraries: ${boost_libraries}")
endif()

# Another compiler with its defaults (see CMakeLists.txt).
if(OTHER_CXX_COMPILER)
    set(other "${WORK_DIR}/consumer-build-other")
    run(${CMAKE_COMMAND} -S "${CONSUMER_SOURCE_DIR}" -B "${other}"
        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${OTHER_CXX_COMPILER})
    run(${CMAKE_COMMAND} --build "${other}")
    run("${other}/consumer" "${expected_root}")
endif()
