# MODEMLOADER_COVERAGE builds every object of ours with gcc's line and branch counters
# (--coverage), for tools/coverage. Each test process adds its counts to the .gcda files next to
# the objects when it exits (gcov locks and merges them, so the suite runs in parallel, one
# process per test, as in the dev build). The flags are those of the interface target
# modemloader::coverage, which the top-level CMakeLists.txt links into every target.
option(MODEMLOADER_COVERAGE "Instrument every object for gcov line and branch counts" OFF)
add_library(modemloader_coverage INTERFACE)
add_library(modemloader::coverage ALIAS modemloader_coverage)

if(MODEMLOADER_COVERAGE)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        message(FATAL_ERROR "MODEMLOADER_COVERAGE needs gcc (gcov's counters, read by gcovr)")
    endif()
    if(NOT MODEMLOADER_SANITIZER STREQUAL "")
        message(FATAL_ERROR "MODEMLOADER_COVERAGE and MODEMLOADER_SANITIZER do not go together")
    endif()
    # -O0 keeps every source line and branch in the object as written, so a count belongs to
    # the line the reader sees.
    target_compile_options(modemloader_coverage INTERFACE --coverage -O0)
    target_link_options(modemloader_coverage INTERFACE --coverage)
endif()
