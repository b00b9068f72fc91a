# Warning flags for the project's own targets. Warnings are errors unless
# KESTREL_WARNINGS_AS_ERRORS is switched off (e.g. by a packager).
option(KESTREL_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" ON)

add_library(kestrel_warnings INTERFACE)
target_compile_options(kestrel_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Wcast-align -Woverloaded-virtual -Wconversion -Wsign-conversion
    -Wformat=2 -Wimplicit-fallthrough
    $<$<BOOL:${KESTREL_WARNINGS_AS_ERRORS}>:-Werror>)
