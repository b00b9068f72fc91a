# Shared by the install tests (script mode): run(<command...>) fails the test
# with the command's output when the command fails, and install_kestrel()
# installs the build tree into ${WORK_DIR}/prefix, empty beforehand.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

function(install_kestrel)
    file(REMOVE_RECURSE "${WORK_DIR}")
    run(${CMAKE_COMMAND} --install "${KESTREL_BUILD_DIR}" --prefix "${WORK_DIR}/prefix")
endfunction()

# run_program(<program> <args...>): runs a program built for the target; in a
# cross build (EMULATOR given) through the emulator, with the scratch prefix's
# bin folder, where the DLLs are, on its search path.
function(run_program program)
    if(EMULATOR)
        string(REPLACE "|" ";" emulator "${EMULATOR}")
        set(ENV{WINEPATH} "${TARGET_PREFIX}\\bin")
        run(${emulator} "${program}${EXE_SUFFIX}" ${ARGN})
    else()
        run("${program}" ${ARGN})
    endif()
endfunction()
