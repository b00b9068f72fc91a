# Script mode: lists the dynamic symbols that LIBRARY defines and checks the
# test seams against SEAMS: every one exported when on, none when off. The
# public testing interface (kestrel/testing/clock.h) is exported either way.
execute_process(COMMAND "${NM}" -D -C --defined-only "${LIBRARY}"
    RESULT_VARIABLE rc OUTPUT_VARIABLE symbols ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${err}")
endif()

# Every function declared with KESTREL_TEST_SEAM (src/core/test_seam.h).
set(seams
    kestrel::detail::setSignalHookForTesting
    kestrel::detail::setLoaderApiForTesting
    kestrel::detail::systemLoaderApi
    kestrel::detail::setDebuggerOutputForTesting
    kestrel::detail::setFileOpenForTesting
    kestrel::detail::narrowSystemText
    kestrel::detail::getProcessClockStateForTesting
    kestrel::platform::lastSearchedDirectoryCount
    kestrel::platform::lastInspectedFileCount)
set(failures)
foreach(seam IN LISTS seams)
    # A name, then its parameters or its ABI tag.
    string(REGEX MATCH "${seam}[[(]" at "${symbols}")
    if(SEAMS AND NOT at)
        list(APPEND failures "${seam} is not exported although the seams are on (renamed?)")
    elseif(NOT SEAMS AND at)
        list(APPEND failures "${seam} is exported although the seams are off")
    endif()
endforeach()
if(NOT SEAMS)
    # Nor any seam missing from the list, as far as its name tells.
    string(REGEX MATCHALL "[^\n]*ForTesting[^\n]*" internals "${symbols}")
    foreach(line IN LISTS internals)
        list(APPEND failures "test seam exported: ${line}")
    endforeach()
endif()
foreach(public kestrel::testing::setClockSources kestrel::testing::ClockSources::~ClockSources)
    string(FIND "${symbols}" "${public}(" at)
    if(at EQUAL -1)
        list(APPEND failures "${public} is not exported")
    endif()
endforeach()
if(failures)
    list(JOIN failures "\n  " text)
    message(FATAL_ERROR "${LIBRARY}:\n  ${text}")
endif()
list(LENGTH seams count)
message(STATUS "${LIBRARY}: test seams ${SEAMS}, checked ${count} of them")
