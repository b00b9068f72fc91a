# Script mode: install, then build the consumer with one compiler call whose
# flags come from `pkg-config --cflags --libs kestrel`, and run it. No CMake
# package is involved: this is what a Makefile-based project does.
include("${CMAKE_CURRENT_LIST_DIR}/install_prefix.cmake")
set(prefix "${WORK_DIR}/prefix")

install_kestrel()
execute_process(
    COMMAND ${CMAKE_COMMAND} -E env "PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig"
            ${PKG_CONFIG} --cflags --libs kestrel
    RESULT_VARIABLE rc OUTPUT_VARIABLE package_flags ERROR_VARIABLE err
    OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config cannot find kestrel in ${prefix}: ${err}")
endif()
message(STATUS "pkg-config --cflags --libs kestrel: ${package_flags}")

separate_arguments(package_flags UNIX_COMMAND "${package_flags}")
# The library's own (sanitizer) flags, so that a sanitized library links.
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(linker_flags UNIX_COMMAND "${EXE_LINKER_FLAGS}")
run(${CXX_COMPILER} ${cxx_flags} -o "${WORK_DIR}/consumer${EXE_SUFFIX}" "${CONSUMER_SOURCE}"
    ${package_flags} ${linker_flags})
if(TARGET_PREFIX)
    run_program("${WORK_DIR}/consumer" "${TARGET_PREFIX}")
else()
    run_program("${WORK_DIR}/consumer" "${prefix}")
endif()

# Another compiler with its defaults and nothing but the package's flags
# (see CMakeLists.txt).
if(OTHER_CXX_COMPILER)
    run(${OTHER_CXX_COMPILER} -o "${WORK_DIR}/consumer-other" "${CONSUMER_SOURCE}"
        ${package_flags})
    run_program("${WORK_DIR}/consumer-other" "${prefix}")
endif()
