# Windows builds (native or cross-compiled with mingw-w64, see
# cmake/toolchains/). Included by the top-level CMakeLists.txt before the
# dependencies are looked for.
#
# - Everything is built for the Windows 10 API. Boost.Log names the API level
#   in its ABI, so this must match the level Boost was built with
#   (scripts/build-boost-mingw builds with the same).
# - Boost is used as DLLs: the host, kestrel, the foundation services and the
#   tests share one Boost.Log core only that way.
# - Programs find their DLLs beside themselves: the build tree's bin folder
#   receives Boost's DLLs and the compiler's runtime DLLs, and so does an
#   installation's.
add_compile_definitions(_WIN32_WINNT=0x0A00 WINVER=0x0A00)
set(Boost_USE_STATIC_LIBS OFF)

# The compiler's runtime DLLs that C++ programs and Boost depend on.
function(_kestrel_compiler_runtime_dlls out)
    set(dlls)
    foreach(name libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
            OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(IS_ABSOLUTE "${file}" AND EXISTS "${file}")
            get_filename_component(file "${file}" REALPATH)
            list(APPEND dlls "${file}")
        endif()
    endforeach()
    set(${out} ${dlls} PARENT_SCOPE)
endfunction()

# Boost's DLLs: they sit beside (or, in a Windows layout, in ../bin of) the
# import libraries that the imported targets name.
function(_kestrel_boost_dlls out)
    set(dlls)
    foreach(target Boost::thread Boost::chrono Boost::log)
        foreach(property IMPORTED_IMPLIB_RELEASE IMPORTED_IMPLIB IMPORTED_IMPLIB_DEBUG)
            get_target_property(implib ${target} ${property})
            if(implib)
                get_filename_component(dir "${implib}" DIRECTORY)
                file(GLOB found "${dir}/*.dll" "${dir}/../bin/*.dll")
                list(APPEND dlls ${found})
                break()
            endif()
        endforeach()
    endforeach()
    list(REMOVE_DUPLICATES dlls)
    set(${out} ${dlls} PARENT_SCOPE)
endfunction()

# Runs once the top-level CMakeLists.txt has been read, when the Boost
# targets exist.
function(_kestrel_windows_deploy_runtime)
    _kestrel_compiler_runtime_dlls(runtime)
    _kestrel_boost_dlls(boost)
    set(dlls ${runtime} ${boost})
    if(dlls)
        file(COPY ${dlls} DESTINATION "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
        install(FILES ${dlls} DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endfunction()
cmake_language(DEFER DIRECTORY "${CMAKE_SOURCE_DIR}" CALL _kestrel_windows_deploy_runtime)
