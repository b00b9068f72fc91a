# Script mode: install, configure the consumer, build it and run it.
set(prefix "${WORK_DIR}/prefix")
set(build "${WORK_DIR}/consumer-build")
file(REMOVE_RECURSE "${WORK_DIR}")

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install "${KESTREL_BUILD_DIR}" --prefix "${prefix}")
run(${CMAKE_COMMAND} -S "${CONSUMER_SOURCE_DIR}" -B "${build}"
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    # The same sanitizer flags as the library, so that a sanitized build's
    # consumer starts with the sanitizer runtime.
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${build}")
run("${build}/consumer" "${prefix}")
