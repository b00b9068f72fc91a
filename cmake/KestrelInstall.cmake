# Installation: headers, libraries, a CMake package (kestrel::kestrel and
# kestrel::qxfoundation) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(KESTREL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/kestrel")

install(TARGETS kestrel qxfoundation
    EXPORT kestrelTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kestrel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kestrelTargets
    NAMESPACE kestrel::
    DESTINATION ${KESTREL_CMAKE_DIR})

configure_package_config_file(cmake/kestrelConfig.cmake.in
    "${CMAKE_CURRENT_BINARY_DIR}/kestrelConfig.cmake"
    INSTALL_DESTINATION ${KESTREL_CMAKE_DIR})
write_basic_package_version_file(
    "${CMAKE_CURRENT_BINARY_DIR}/kestrelConfigVersion.cmake"
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES
    "${CMAKE_CURRENT_BINARY_DIR}/kestrelConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/kestrelConfigVersion.cmake"
    DESTINATION ${KESTREL_CMAKE_DIR})

# The pkg-config file names its prefix relative to its own place
# (${pcfiledir}), so it stays right whatever prefix `cmake --install
# --prefix` chooses at install time.
file(RELATIVE_PATH KESTREL_PC_PREFIX_FROM_PCFILEDIR
    "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" KESTREL_PC_PREFIX_FROM_PCFILEDIR "${KESTREL_PC_PREFIX_FROM_PCFILEDIR}")
# threads.h includes Boost.Thread's headers (Thread::getID() returns its
# identifier type): name Boost's include directory unless the compiler
# searches it anyway.
set(KESTREL_PC_BOOST_CFLAGS "")
get_target_property(kestrel_boost_includes Boost::headers INTERFACE_INCLUDE_DIRECTORIES)
foreach(dir IN LISTS kestrel_boost_includes)
    if(NOT dir IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES AND NOT dir STREQUAL "/usr/include")
        string(APPEND KESTREL_PC_BOOST_CFLAGS " -I${dir}")
    endif()
endforeach()
configure_file(cmake/kestrel.pc.in "${CMAKE_CURRENT_BINARY_DIR}/kestrel.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/kestrel.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
