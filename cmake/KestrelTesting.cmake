# Helpers that keep the test programs uniform.
include(GoogleTest)

# kestrel_add_test(<name> SOURCES <files...> [LIBRARIES <libs...>])
# Builds a GoogleTest program linked with kestrel and registers each of its
# tests with CTest.
function(kestrel_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE kestrel::kestrel kestrel_test_support
        GTest::gtest GTest::gtest_main kestrel_warnings ${ARG_LIBRARIES})
    if(WIN32)
        # Windows finds a program's DLLs beside it: test programs live with
        # kestrel's and the foundation's DLLs.
        set_target_properties(${name} PROPERTIES
            RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/${CMAKE_INSTALL_BINDIR}")
    endif()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 120)
endfunction()

# kestrel_add_test_plugin(<name> SOURCES <files...> [LIBRARIES <libs...>])
# Builds a loadable module named exactly <name>.dll in the test binary
# directory, whatever the platform, so that tests can find it beside
# themselves.
function(kestrel_add_test_plugin name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
    add_library(${name} MODULE ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".dll"
        LIBRARY_OUTPUT_DIRECTORY "${KESTREL_TEST_BINARY_DIR}")
    if(ARG_LIBRARIES)
        target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
    endif()
    kestrel_self_contained_library(${name})
endfunction()

# kestrel_self_contained_library(<target>)
# On Windows, links the compiler's runtime into the DLL, so that it loads
# from any directory whatever the loader's search (a plugin loaded with only
# the added DLL directories searched finds no runtime DLL beside the program).
function(kestrel_self_contained_library target)
    if(WIN32 AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_link_options(${target} PRIVATE -static)
    endif()
endfunction()

# kestrel_target_path(<out> <path> [C_STRING])
# A build-tree path as the test programs see it: programs for Windows that run
# under Wine on a POSIX host see the host's file system as drive Z:. With
# C_STRING, each backslash is doubled for use inside a C++ string literal.
function(kestrel_target_path out path)
    cmake_parse_arguments(ARG "C_STRING" "" "" ${ARGN})
    if(WIN32 AND CMAKE_HOST_UNIX AND path MATCHES "^/")
        string(REPLACE "/" "\\" path "Z:${path}")
    endif()
    if(ARG_C_STRING)
        string(REPLACE "\\" "\\\\" path "${path}")
    endif()
    set(${out} "${path}" PARENT_SCOPE)
endfunction()
