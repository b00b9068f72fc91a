# Script mode: install, configure the consumer, build it and run it.
include("${CMAKE_CURRENT_LIST_DIR}/install_prefix.cmake")
set(prefix "${WORK_DIR}/prefix")
set(build "${WORK_DIR}/consumer-build")

install_kestrel()
run(${CMAKE_COMMAND} -S "${CONSUMER_SOURCE_DIR}" -B "${build}"
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    # The same sanitizer flags as the library, so that a sanitized build's
    # consumer starts with the sanitizer runtime.
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${build}")
run("${build}/consumer" "${prefix}")
