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
endfunction()
