# MODEMLOADER_SANITIZER selects an instrumented build: "address" (AddressSanitizer together with
# UndefinedBehaviorSanitizer), "thread" (ThreadSanitizer) or "fuzzer" (clang only: every object
# carries libFuzzer's coverage besides AddressSanitizer and UBSan, so the fuzz targets in
# tests/fuzz see the plug-in's and the host's branches). Empty builds without instrumentation.
# The flags are those of the interface target modemloader::sanitizers, which the top-level
# CMakeLists.txt links into every target: every object of ours is instrumented alike.
set(MODEMLOADER_SANITIZER "" CACHE STRING "address, thread, fuzzer or empty")
add_library(modemloader_sanitizers INTERFACE)
add_library(modemloader::sanitizers ALIAS modemloader_sanitizers)

if(MODEMLOADER_SANITIZER STREQUAL "address")
    target_compile_options(modemloader_sanitizers INTERFACE -fsanitize=address,undefined
                           -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(modemloader_sanitizers INTERFACE -fsanitize=address,undefined)
elseif(MODEMLOADER_SANITIZER STREQUAL "thread")
    target_compile_options(modemloader_sanitizers INTERFACE -fsanitize=thread
                           -fno-omit-frame-pointer)
    target_link_options(modemloader_sanitizers INTERFACE -fsanitize=thread)
elseif(MODEMLOADER_SANITIZER STREQUAL "fuzzer")
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "MODEMLOADER_SANITIZER=fuzzer needs clang (libFuzzer)")
    endif()
    target_compile_options(modemloader_sanitizers INTERFACE
                           -fsanitize=fuzzer-no-link,address,undefined
                           -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
    target_link_options(modemloader_sanitizers INTERFACE -fsanitize=address,undefined)
elseif(NOT MODEMLOADER_SANITIZER STREQUAL "")
    message(FATAL_ERROR "MODEMLOADER_SANITIZER must be address, thread, fuzzer or empty")
endif()
